#include "log_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "output.h"

namespace kivctl {

LogFile::LogFile(std::string path)
    : path_(std::move(path)),
      // Not blocking: the opening of a FIFO would wait for its reader.
      file_(open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644)) {
    struct stat status {};
    if (file_ < 0 || fstat(file_, &status) != 0)
        throw usage("--log: " + printable(path_) + ": " + std::generic_category().message(errno));
    if (!S_ISREG(status.st_mode)) throw usage("--log: " + printable(path_) + ": is no regular file");
}

bool LogFile::write_all(const std::string& text) {
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = write(file_, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        written += static_cast<std::size_t>(count);
        torn_ = written < text.size();
    }
    return true;
}

void LogFile::add(const Json& json) {
    // A line that follows half of one begins anew, so that only that one is lost to a reader.
    if (write_all(fmt::format("{}{}", torn_ ? "\n" : "", json_line(json)))) {
        if (left_out_ > 0)
            Output::note(
                fmt::format("{}: written again; {} lines were left out", printable(path_), left_out_));
        left_out_ = 0;
        return;
    }
    const std::string reason = std::generic_category().message(errno);
    if (left_out_++ == 0)
        Output::note(fmt::format("{}: {}: lines are left out until it can be written again", printable(path_),
                                 reason));
}

}  // namespace kivctl
