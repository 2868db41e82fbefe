#include "configuration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kiv/CardConfig.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>
#include <thread>

#include "guard.h"

namespace kivctl {

namespace {

namespace fs = std::filesystem;

constexpr int64_t kMostBytes = int64_t{64} << 20;  ///< As the library.

Failure of_file(const std::string& path, const std::string& what, const std::string& remedy = "") {
    return {Layer::Configuration, "CONFIGURATION_FILE", path + ": " + what, remedy};
}

Failure not_possible(const std::string& path, const std::string& what, int error) {
    const bool denied = (error == EACCES || error == EPERM) && geteuid() != 0;
    return of_file(path, what + ": " + std::generic_category().message(error),
                   denied ? "the file belongs to the administrator: try again with sudo" : "");
}

Failure not_found(const std::string& path, int error) {
    std::error_code ignored;
    if (error != ENOENT) return not_possible(path, "cannot be read", error);
    if (fs::is_symlink(path, ignored))
        return of_file(path, "is a link to a file that is not there", "make that file, or remove the link");
    return of_file(path, std::generic_category().message(error), "\"kivctl config init\" makes a first one");
}

struct stat state_of(const std::string& path) {
    struct stat state {};
    if (stat(path.c_str(), &state) != 0) throw not_found(path, errno);
    return state;
}

/// Gives it owner and mode of the former file, if there is one.
bool make_alike(int file, const struct stat* former) {
    constexpr mode_t kReadable = 0644;
    if (former == nullptr) return fchmod(file, kReadable) == 0;
    struct stat state {};
    if (fstat(file, &state) != 0) return false;
    const bool same_owner = state.st_uid == former->st_uid && state.st_gid == former->st_gid;
    return (same_owner || fchown(file, former->st_uid, former->st_gid) == 0) &&
           fchmod(file, former->st_mode & 07777) == 0;
}

/// A new file that is written to its end, and to the disk. Removes what it made when that fails.
void write_new(const std::string& path, const std::string& text, const struct stat* former) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) throw not_possible(path, "cannot be made", errno);
    std::size_t written = 0;
    bool good = make_alike(file, former);
    const char* const what = good ? "cannot be written" : "cannot have owner and mode of the former file";
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
    throw not_possible(path, what, error);
}

/// Removes the file at the end of the scope, or of the process, if it is still there.
struct Temporary {
    explicit Temporary(std::string name) : path(std::move(name)) {
        unlink(path.c_str());
        at_end([name = path] { unlink(name.c_str()); });
    }
    ~Temporary() { unlink(path.c_str()); }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    const std::string path;
};

void rename_file(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0) throw not_possible(to, "cannot be replaced", errno);
}

/// Keeps others from changing the configuration. On the folder: the file itself is another one after a
/// change.
class FolderLock {
  public:
    explicit FolderLock(const std::string& folder) : file_{open(folder.c_str(), O_RDONLY | O_CLOEXEC)} {
        if (file_.number < 0) throw not_possible(folder, "cannot be locked", errno);
        using Clock = std::chrono::steady_clock;
        constexpr std::chrono::seconds kLongest{10};
        waiting_for(Layer::Configuration, "the end of another change of the card configuration");
        const auto end = Clock::now() + kLongest;
        while (flock(file_.number, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) throw not_possible(folder, "cannot be locked", errno);
            if (Clock::now() > end)
                throw of_file(folder,
                              fmt::format("has been locked by another program for {} s", kLongest.count()),
                              "try again when that has ended");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

  private:
    struct Descriptor {
        ~Descriptor() { close(number); }
        const int number;
    };
    const Descriptor file_;
};

Json document_of(const std::string& path, const std::string& text) {
    for (const Finding& finding : check_text(path, text)) {
        if (finding.fatal)
            throw Failure(Layer::Configuration, "CONFIGURATION", path + ": " + finding.text(),
                          "\"kivctl config check\" lists all that is wrong");
    }
    return Json::parse(text);
}

void replace(const std::string& path, const std::string& former, const Json& document) {
    const struct stat state = state_of(path);
    const std::string suffix = fmt::format(".{}", getpid());
    const Temporary fresh(path + ".new" + suffix);
    const Temporary kept(path + ".bak" + suffix);
    write_new(fresh.path, document.dump(4) + "\n", &state);
    if (Json::parse(read_text(fresh.path), nullptr, false) != document)
        throw of_file(fresh.path, "does not read back as it was written",
                      "look at the disk; the former file is in its place");
    try {
        kiv::config::CardConfig::load_from_file(fresh.path);
    } catch (const std::exception& refused) {
        throw Failure(Layer::Configuration, "CONFIGURATION", refused.what(),
                      "the former file is in its place");
    }
    write_new(kept.path, former, &state);
    // An editor, or the library's own call, does not know the lock.
    if (read_text(path) != former)
        throw of_file(path, "another program has changed it meanwhile", "try again");
    rename_file(kept.path, path + ".bak");
    rename_file(fresh.path, path);
}

}  // namespace

std::string configuration_path() {
    return kiv::config::CardConfig::getPath();
}

std::optional<Failure> unreadable(const std::string& path) {
    struct stat state {};
    if (stat(path.c_str(), &state) != 0) return std::nullopt;
    if (!S_ISREG(state.st_mode)) return of_file(path, "is no regular file");
    if (state.st_size <= kMostBytes) return std::nullopt;
    return of_file(path, fmt::format("has {} bytes; a configuration has at most {}",
                                     static_cast<int64_t>(state.st_size), kMostBytes));
}

std::string read_text(const std::string& path) {
    state_of(path);
    if (const std::optional<Failure> failure = unreadable(path)) throw Failure(*failure);
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) throw not_possible(path, "cannot be read", errno);
    return {std::istreambuf_iterator<char>(file), {}};
}

Json read_configuration(const std::string& path) {
    return document_of(path, read_text(path));
}

bool is_entry_of(const Json& entry, uint8_t id) {
    return entry.get<kiv::config::DeviceConfig>().device_id == id;
}

void change_configuration(const std::string& path, const std::function<void(Json&)>& change) {
    std::error_code error;
    const fs::path real = fs::canonical(path, error);  // A link stays one.
    if (error) throw not_found(path, error.value());
    guard().also_say(
        "\"kivctl config show\" tells whether the configuration has the change; the card has it");
    const FolderLock lock(real.parent_path().string());
    waiting_for(Layer::Configuration, "the disk of the card configuration");
    const std::string former = read_text(real.string());
    Json document = document_of(path, former);
    change(document);
    replace(real.string(), former, document);
}

void create_configuration(const std::string& path, const std::string& text) {
    struct stat state {};
    if (lstat(path.c_str(), &state) == 0) {
        state_of(path);  // Throws for a link that leads nowhere.
        throw of_file(path, "exists already, and stays as it is",
                      "\"kivctl config check\" says whether it is good");
    }
    if (errno != ENOENT) throw not_possible(path, "cannot be looked for", errno);
    const fs::path folder = fs::path(path).parent_path();
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throw not_possible(folder.string(), "cannot be made", error.value());
    write_new(path, text, nullptr);
}

}  // namespace kivctl
