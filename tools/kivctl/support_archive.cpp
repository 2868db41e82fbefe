#include "support_archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "failure.h"
#include "guard.h"

namespace kivctl {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = 0600;  // What was collected is this user's, to look at and to give away.
constexpr mode_t kFolderMode = 0700;

std::atomic<bool> g_whole{false};

Failure not_made(const std::string& path, int error) {
    if (error == EEXIST)
        return {Layer::Argument, "OUTPUT_FILE", path + ": exists already, and stays as it is",
                "-o FILE gives it another name"};
    return {Layer::Argument, "OUTPUT_FILE",
            path + ": cannot be made: " + std::generic_category().message(error),
            "-o FILE puts it elsewhere"};
}

Failure not_written(const std::string& path, const std::string& why) {
    return {Layer::Argument, "OUTPUT_FILE", path + ": cannot be written, and is removed: " + why,
            "-o FILE puts it elsewhere"};
}

}  // namespace

Archive::Archive(std::string wanted, const std::string& name) : path_(std::move(wanted)), name_(name) {
    if (fs::is_directory(path_)) {
        path_ = (fs::path(path_) / (name + "/")).string();
    } else if (!path_.ends_with('/')) {
        file_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
        if (file_ < 0) throw not_made(path_, errno);
    }
    is_folder_ = file_ < 0;
    if (is_folder_ && mkdir(path_.c_str(), kFolderMode) != 0) throw not_made(path_, errno);
    at_end([path = path_] {
        std::error_code ignored;
        if (!g_whole) fs::remove_all(path, ignored);
    });
}

void Archive::write(const std::vector<Member>& members) {
    is_folder_ ? write_folder(members) : write_file(members);
    g_whole = true;
}

void Archive::write_folder(const std::vector<Member>& members) const {
    for (const Member& member : members) {
        const fs::path path = fs::path(path_) / member.name;
        std::error_code error;
        fs::create_directories(path.parent_path(), error);
        if (error) throw not_written(path_, error.message());
        errno = 0;
        std::ofstream file(path, std::ios::binary);
        file << member.text << std::flush;
        if (!file) throw not_written(path_, std::generic_category().message(errno));
    }
}

void Archive::write_file(const std::vector<Member>& members) {
    using Writer = std::unique_ptr<archive, int (*)(archive*)>;
    using Entry = std::unique_ptr<archive_entry, void (*)(archive_entry*)>;
    const Writer writer(archive_write_new(), archive_write_free);
    const auto check = [&](la_ssize_t result) {
        if (result < ARCHIVE_OK) throw not_written(path_, archive_error_string(writer.get()));
    };
    check(archive_write_add_filter_gzip(writer.get()));
    check(archive_write_set_format_pax_restricted(writer.get()));
    check(archive_write_open_fd(writer.get(), file_));
    for (const Member& member : members) {
        const Entry entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), (name_ + "/" + member.name).c_str());
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(member.text.size()));
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), kFileMode);
        archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
        check(archive_write_header(writer.get(), entry.get()));
        check(archive_write_data(writer.get(), member.text.data(), member.text.size()));
    }
    check(archive_write_close(writer.get()));
    if (fsync(file_) != 0 || close(file_) != 0)
        throw not_written(path_, std::generic_category().message(errno));
}

}  // namespace kivctl
