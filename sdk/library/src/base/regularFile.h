/// Regular files, and what tells one state of a file from another.
#ifndef KIV_REGULAR_FILE_H
#define KIV_REGULAR_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace kiv {

/// Two equal states of a path: the same file, not written to in between as far as its times tell.
struct FileState {
    dev_t device;
    ino_t number;
    off_t size;  ///< Bytes.
    std::filesystem::file_time_type modified;

    bool operator==(const FileState&) const = default;
};

/// The present state of the regular file at `path`; empty when there is none.
std::optional<FileState> state_of_file(const std::string& path);

/// A regular file, open for reading. Devices and pipes, which may block or never end, are not opened.
class RegularFile {
  public:
    explicit RegularFile(const std::string& path);
    ~RegularFile();
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;

    bool is_open() const { return file_ >= 0; }
    std::size_t size() const { return size_; }  ///< Bytes, when it was opened.

    /// Reads the next bytes, `room` of them at most (not 0). Returns how many, 0 at the end of the file, and
    /// -1 on an error, and when the file turns out to be longer or shorter than it was.
    ssize_t read_next(char* to, std::size_t room);

  private:
    int file_ = -1;
    std::size_t size_ = 0;
    std::size_t taken_ = 0;
};

}  // namespace kiv

#endif
