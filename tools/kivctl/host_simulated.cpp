// kivsim stands in for driver and cards.
#include <fcntl.h>
#include <kivos/program.h>
#include <kivos/sockets.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "failure.h"
#include "guard.h"
#include "host.h"

extern char** environ;

namespace kivctl {

namespace {

namespace fs = std::filesystem;

Failure no_simulator(const std::string& what) {
    return {Layer::Driver, "NO_SIMULATOR", "the simulator cannot be started: " + what,
            "kivsim must be installed beside kivctl, or in a folder of PATH"};
}

struct Pipe {
    Pipe() {
        if (!kivos::pipe_pair(read_end, write_end))
            throw no_simulator(std::generic_category().message(errno));
    }
    kivos::Descriptor read_end{};
    kivos::Descriptor write_end{};
};

/// A folder that only this user sees, removed with this process.
fs::path make_folder() {
    // Not in TMPDIR: the path of a socket is short.
    std::string name = "/tmp/kivctl-" + std::to_string(getpid()) + "-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw no_simulator(name + ": " + std::generic_category().message(errno));
    at_end([name] {
        std::error_code ignored;
        fs::remove_all(name, ignored);
    });
    return name;
}

/// Its standard input is `in`, its standard output `out`, its standard error goes to a file.
pid_t spawn(const std::vector<std::string>& words, int in, int out, const std::string& errors) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, out, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT, 0600);
    // A process group of its own: Ctrl-C is for kivctl, which may still have something to say.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &files, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw no_simulator(words[0] + ": " + std::generic_category().message(error));
    return pid;
}

/// Whether it says that it is ready; false when it has ended.
bool wait_until_ready(int out) {
    constexpr int kLimit = 10'000;  ///< Milliseconds.
    pollfd entry{out, POLLIN, 0};
    int count = 0;
    while ((count = poll(&entry, 1, kLimit)) < 0 && errno == EINTR) {
    }
    if (count == 0) throw no_simulator("it is not ready within 10 s");
    char text[4096];
    return read(out, text, sizeof text) > 0;
}

/// Why it has ended: its own words.
Failure ended(pid_t pid, const std::string& errors) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::ifstream file(errors);
    std::string words{std::istreambuf_iterator<char>(file), {}};
    words.erase(words.find_last_not_of('\n') + 1);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kUsage) return no_simulator(words);
    return Failure(Layer::Argument, "CARDS_FILE", words,
                   "\"kivsim check FILE\" reads a cards file and says the same")
        .ends_with(kUsage);
}

}  // namespace

void start_simulation(const std::string& cards) {
    const fs::path folder = make_folder();
    const std::string socket = folder / "socket";
    const std::string errors = folder / "errors";
    const fs::path beside = fs::path(kivos::program_file()).replace_filename("kivsim");
    std::vector<std::string> words{fs::exists(beside) ? beside.string() : "kivsim", "--ready-json",
                                   "--with-stdin", "--socket", socket};
    if (!cards.empty()) words.insert(words.end(), {"--config", cards});
    // Nobody writes: the end of this process, whatever its reason, closes the pipe and so ends the simulator.
    static Pipe life;
    Pipe ready;
    const pid_t pid = spawn(words, life.read_end.get(), ready.write_end.get(), errors);
    life.read_end.reset();
    ready.write_end.reset();
    if (!wait_until_ready(ready.read_end.get())) throw ended(pid, errors);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the guard's thread, the only other one, reads no environment.
    setenv("KIVSIM_SOCKET", socket.c_str(), 1);
}

}  // namespace kivctl
