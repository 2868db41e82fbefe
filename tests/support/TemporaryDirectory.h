/// A directory of the test's own, removed with all in it.
#ifndef KIV_TEST_TEMPORARY_DIRECTORY_H
#define KIV_TEST_TEMPORARY_DIRECTORY_H

#include <filesystem>
#include <string>

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

/// The whole file; empty when there is none.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);

#endif
