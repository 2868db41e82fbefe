#include "configuration.h"

#include <fcntl.h>
#include <kiv/CardConfig.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>

namespace kivctl {

namespace {

namespace fs = std::filesystem;

Failure not_possible(const std::string& path, const std::string& what, int error) {
    const bool denied = error == EACCES || error == EPERM || error == EROFS;
    return {Layer::Configuration, "CONFIGURATION_FILE",
            path + ": " + what + ": " + std::generic_category().message(error),
            denied ? "the file belongs to the administrator: try again with sudo" : ""};
}

std::string read_text(const std::string& path) {
    struct stat state {};
    if (stat(path.c_str(), &state) != 0)
        throw Failure(Layer::Configuration, "CONFIGURATION_FILE",
                      path + ": " + std::generic_category().message(errno),
                      "\"kivctl config init\" makes a first one");
    if (!S_ISREG(state.st_mode))
        throw Failure(Layer::Configuration, "CONFIGURATION_FILE", path + ": is no regular file");
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) throw not_possible(path, "cannot be read", errno);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A new file that is written to its end, and to the disk. Removes what it made when that fails.
void write_new(const std::string& path, const std::string& text, mode_t mode) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (file < 0) throw not_possible(path, "cannot be made", errno);
    std::size_t written = 0;
    bool good = fchmod(file, mode) == 0;
    while (good && written < text.size()) {
        const ssize_t count = write(file, text.data() + written, text.size() - written);
        good = count > 0;
        if (good) written += static_cast<std::size_t>(count);
    }
    good = good && fsync(file) == 0;
    int error = errno;
    if (close(file) != 0 && good) {
        good = false;
        error = errno;
    }
    if (good) return;
    unlink(path.c_str());
    throw not_possible(path, "cannot be written", error);
}

/// Removes the file at the end of the scope, if it is still there.
struct Temporary {
    explicit Temporary(std::string name) : path(std::move(name)) { unlink(path.c_str()); }
    ~Temporary() { unlink(path.c_str()); }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    const std::string path;
};

void rename_file(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0) throw not_possible(to, "cannot be replaced", errno);
}

}  // namespace

std::string configuration_path() {
    return kiv::config::CardConfig::getPath();
}

Json read_configuration(const std::string& path) {
    const std::string text = read_text(path);
    for (const Finding& finding : check_configuration(path)) {
        if (!finding.fatal) continue;
        throw Failure(Layer::Configuration, "CONFIGURATION",
                      path + ", line " + std::to_string(finding.line) + ": " + finding.key +
                          (finding.key.empty() ? "" : ": ") + finding.problem,
                      "\"kivctl config check\" lists all that is wrong");
    }
    return Json::parse(text);
}

void replace_configuration(const std::string& path, const Json& document) {
    std::error_code error;
    const fs::path real = fs::canonical(path, error);  // A link stays one.
    if (error) throw not_possible(path, "cannot be found", error.value());
    const std::string former = read_text(real.string());
    struct stat state {};
    if (stat(real.c_str(), &state) != 0) throw not_possible(path, "cannot be read", errno);
    const mode_t mode = state.st_mode & 07777;

    const std::string suffix = "." + std::to_string(getpid());
    const Temporary fresh(real.string() + ".new" + suffix);
    const Temporary kept(real.string() + ".bak" + suffix);
    write_new(fresh.path, document.dump(4) + "\n", mode);
    if (Json::parse(read_text(fresh.path), nullptr, false) != document)
        throw Failure(Layer::Configuration, "CONFIGURATION_FILE",
                      fresh.path + ": does not read back as it was written",
                      "look at the disk; the former file is in its place");
    try {
        kiv::config::CardConfig::load_from_file(fresh.path);
    } catch (const std::exception& refused) {
        throw Failure(Layer::Configuration, "CONFIGURATION", refused.what(),
                      "the former file is in its place");
    }
    write_new(kept.path, former, mode);
    rename_file(kept.path, real.string() + ".bak");
    rename_file(fresh.path, real.string());
}

void create_configuration(const std::string& path, const std::string& text) {
    const fs::path file(path);
    std::error_code error;
    if (fs::symlink_status(file, error).type() != fs::file_type::not_found)
        throw Failure(Layer::Configuration, "CONFIGURATION_FILE",
                      path + ": exists already, and stays as it is",
                      "\"kivctl config check\" says whether it is good");
    fs::create_directories(file.parent_path(), error);
    if (error) throw not_possible(file.parent_path().string(), "cannot be made", error.value());
    constexpr mode_t kReadable = 0644;
    write_new(path, text, kReadable);
}

}  // namespace kivctl
