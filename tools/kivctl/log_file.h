/// A file that grows by lines of JSON.
#ifndef KIVCTL_LOG_FILE_H
#define KIVCTL_LOG_FILE_H

#include <cstdint>
#include <string>

#include "failure.h"

namespace kivctl {

/// Not for several threads at once. The file stays open until the process ends.
class LogFile {
  public:
    /// Lines go behind those that the file has; it is made when there is none. Throws Failure when it cannot
    /// be opened, or is no regular file.
    explicit LogFile(std::string path);

    /// One line. When it cannot be written, a message says so once, and again when lines can be written and
    /// how many were left out: a full disk ends no watch.
    void add(const Json& json);

  private:
    bool write_all(const std::string& text);

    const std::string path_;
    int file_;
    bool torn_ = false;  ///< The last line is there in part.
    uint64_t left_out_ = 0;
};

}  // namespace kivctl

#endif
