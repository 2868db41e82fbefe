#include "image_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kivos/files.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "output.h"

namespace kivctl {

namespace {

constexpr int64_t kLargest = int64_t{256} << 20;

}  // namespace

Image::Image(std::string path) : path_(std::move(path)) {
    if (stat(path_.c_str(), &state_) != 0) throw refusal(std::generic_category().message(errno));
    if (!S_ISREG(state_.st_mode)) throw refusal("is no regular file");
    const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) throw refusal("cannot be read: " + std::generic_category().message(errno));
    close(file);
    if (state_.st_size == 0) throw refusal("is empty");
    if (state_.st_size > kLargest)
        throw refusal(fmt::format("has {} bytes; an image has at most {}", state_.st_size, kLargest));
}

bool Image::is_as_it_was() const {
    struct stat now {};
    return stat(path_.c_str(), &now) == 0 && now.st_dev == state_.st_dev && now.st_ino == state_.st_ino &&
           now.st_size == state_.st_size &&
           kivos::last_change(now).tv_sec == kivos::last_change(state_).tv_sec &&
           kivos::last_change(now).tv_nsec == kivos::last_change(state_).tv_nsec;
}

Failure Image::refusal(const std::string& what) const {
    return Failure(Layer::Argument, "FILE", "nothing was sent: " + printable(path_) + ": " + what)
        .ends_with(kUsage);
}

}  // namespace kivctl
