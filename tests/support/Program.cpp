#include "support/Program.h"

#include <kivos/sockets.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds left(Clock::time_point end) {
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()));
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments, const Environment& environment) {
    kivos::Descriptor out;
    kivos::Descriptor err;
    if (!kivos::pipe_pair(out_, out) || !kivos::pipe_pair(err_, err)) throw std::runtime_error("no pipe");
    std::vector<char*> words;
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);

    pid_ = fork();
    if (pid_ == 0) {
        dup2(out.get(), STDOUT_FILENO);
        dup2(err.get(), STDERR_FILENO);
        for (const auto& [name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        execvp(words[0], words.data());
        _exit(127);
    }
    if (pid_ < 0) throw std::runtime_error("no process");
}

Program::~Program() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Program::send_signal(int number) {
    kill(pid_, number);
}

/// False once both streams have ended or the time is over.
bool Program::read_some(std::chrono::milliseconds limit) {
    pollfd entries[2] = {{out_.get(), POLLIN, 0}, {err_.get(), POLLIN, 0}};
    if (poll(entries, 2, static_cast<int>(limit.count())) <= 0) return false;
    kivos::Descriptor* const streams[2] = {&out_, &err_};
    std::string* const texts[2] = {&out_text_, &err_text_};
    for (int i = 0; i < 2; ++i) {
        if (entries[i].revents == 0) continue;
        char buffer[4096];
        const ssize_t size = read(streams[i]->get(), buffer, sizeof buffer);
        if (size > 0) {
            texts[i]->append(buffer, static_cast<std::size_t>(size));
        } else {
            streams[i]->reset();
        }
    }
    return out_ || err_;
}

std::string Program::read_line() {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (out_text_.find('\n') == std::string::npos && read_some(left(end))) {
    }
    const std::size_t line_end = out_text_.find('\n');
    if (line_end == std::string::npos) return "";
    std::string line = out_text_.substr(0, line_end);
    out_text_.erase(0, line_end + 1);
    return line;
}

Ended Program::wait(std::chrono::seconds limit) {
    const auto end = Clock::now() + limit;
    while (read_some(left(end))) {
    }
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (Clock::now() >= end) kill(pid_, SIGKILL);
        usleep(1000);
    }
    pid_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), out_text_, err_text_};
}

Ended Program::end(int signal, std::chrono::seconds limit) {
    send_signal(signal);
    return wait(limit);
}

Ended run_program(const std::vector<std::string>& arguments, const Environment& environment,
                  std::chrono::seconds limit) {
    return Program(arguments, environment).wait(limit);
}
