#include "base/regularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kiv {

namespace {

constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;  // Some systems refuse to read 2 GiB.

/// Not std::filesystem's: that one does not tell which file it is.
bool look_at(const std::string& path, struct stat& state) {
    return stat(path.c_str(), &state) == 0 && S_ISREG(state.st_mode);
}

}  // namespace

std::optional<FileState> state_of_file(const std::string& path) {
    struct stat state {};
    if (!look_at(path, state)) return std::nullopt;
    // The C structure has no name for fractions of a second that all platforms share.
    std::error_code error;
    const auto modified = std::filesystem::last_write_time(path, error);
    if (error) return std::nullopt;
    return FileState{state.st_dev, state.st_ino, state.st_size, modified};
}

RegularFile::RegularFile(const std::string& path) {
    // Opening alone has effects on pipes and devices, so the look comes first. What took the file's place
    // since then does not block either.
    struct stat state {};
    if (!look_at(path, state)) return;
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return;
    if (fstat(file, &state) != 0 || !S_ISREG(state.st_mode)) {
        close(file);
        return;
    }
    file_ = file;
    size_ = static_cast<std::size_t>(state.st_size);
}

RegularFile::~RegularFile() {
    if (file_ >= 0) close(file_);
}

/// The system's own call: file streams of some standard libraries take a read error for the end of the file.
ssize_t RegularFile::read_next(char* to, std::size_t room) {
    ssize_t got = 0;
    do {
        got = read(file_, to, std::min(room, kMostAtOnce));
    } while (got < 0 && errno == EINTR);
    if (got < 0) return -1;
    taken_ += static_cast<std::size_t>(got);
    return taken_ > size_ || (got == 0 && taken_ < size_) ? -1 : got;
}

}  // namespace kiv
