#include "child.h"

#include <fcntl.h>
#include <kivos/program.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <system_error>

#include "failure.h"
#include "guard.h"
#include "host.h"

extern char** environ;

namespace kivctl {

namespace {

std::atomic<pid_t> g_child{0};

/// A child does not outlive the process.
void end_child() {
    if (const pid_t pid = g_child; pid != 0) kill(pid, SIGKILL);
}

Failure not_started(int error) {
    return {Layer::Argument, "CHILD",
            "this program cannot start itself: " + std::generic_category().message(error)};
}

/// A file without name: a child that writes much cannot come to a stop as it would at a pipe.
class Unnamed {
  public:
    Unnamed() : file_(std::tmpfile(), std::fclose) {
        if (!file_) throw not_started(errno);
    }
    int number() const { return fileno(file_.get()); }
    std::string text() const {
        std::string text;
        std::rewind(file_.get());
        char part[4096];
        while (const std::size_t size = std::fread(part, 1, sizeof part, file_.get()))
            text.append(part, size);
        return text;
    }

  private:
    std::unique_ptr<FILE, int (*)(FILE*)> file_;
};

}  // namespace

Ended run_self(const std::vector<std::string>& words) {
    [[maybe_unused]] static const bool registered = (at_end(end_child), true);
    // A process that ends on another thread starts nothing more: this waits for ever then.
    waiting_for(Layer::Driver, "a command whose result is collected");
    const std::string program = kivos::program_file();
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& word : words)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const Unnamed out;
    const Unnamed err;
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, out.number(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, err.number(), STDERR_FILENO);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, program.c_str(), &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw not_started(error);
    g_child = pid;
    siginfo_t ignored{};
    while (waitid(P_PID, static_cast<id_t>(pid), &ignored, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    g_child = 0;  // Before its id may become another's.
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out.text(), err.text()};
}

}  // namespace kivctl
