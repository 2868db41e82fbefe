/// Regular files, and what tells one state of a file from another.
#ifndef KIV_REGULAR_FILE_H
#define KIV_REGULAR_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

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

    /// Hands the file to `take`, block by block. False on a read error, and when the file turns out to be
    /// longer or shorter than it was. For one call.
    bool read_all(const std::function<void(std::string_view block)>& take);

  private:
    int file_ = -1;
    std::size_t size_ = 0;
};

}  // namespace kiv

#endif
