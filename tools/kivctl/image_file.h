/// A firmware image that is to be sent.
#ifndef KIVCTL_IMAGE_FILE_H
#define KIVCTL_IMAGE_FILE_H

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "failure.h"

namespace kivctl {

/// The file, and its state when it was looked at.
class Image {
  public:
    /// Throws what is wrong with the file, of which no card is to blame.
    explicit Image(std::string path);

    const std::string& path() const { return path_; }
    int64_t size() const { return state_.st_size; }

    /// False once it is another file, or has been written to.
    bool is_as_it_was() const;

    Failure refusal(const std::string& what) const;

  private:
    const std::string path_;
    struct stat state_ {};
};

}  // namespace kivctl

#endif
