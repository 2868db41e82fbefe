#include "guard.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace kivctl {

namespace {

using Clock = std::chrono::steady_clock;

struct Awaited {
    Layer layer;
    const char* what;
};

/// What the guard's thread reads; never destroyed, as that thread is not joined.
struct State {
    std::mutex mutex;
    Awaited awaited{Layer::Configuration, "the configuration file"};
    std::string remedy;
    bool signals_are_the_end = false;
    std::vector<std::function<void()>> at_end;
};

State& state() {
    static State& instance = *new State;
    return instance;
}

int g_signal_pipe[2] = {-1, -1};
Guard* g_guard = nullptr;

void tell_guard(int) {
    const int before = errno;
    [[maybe_unused]] const ssize_t written = write(g_signal_pipe[1], "", 1);
    errno = before;
}

/// Ends the process with a failure in what the command waits for.
[[noreturn]] void end_waiting(Output& output, bool json, const char* name, const std::string& message,
                              Exit status) {
    claim_end();
    Awaited awaited{};
    std::string remedy;
    {
        const std::lock_guard lock(state().mutex);
        awaited = state().awaited;
        remedy = state().remedy;
    }
    output.print_failure(Failure(awaited.layer, name, message + awaited.what, remedy), json);
    end_process(status);
}

[[noreturn]] void end_for_signal(Output& output, bool json) {
    bool is_end = false;
    {
        const std::lock_guard lock(state().mutex);
        is_end = state().signals_are_the_end;
    }
    if (!is_end) end_waiting(output, json, "INTERRUPTED", "interrupted while waiting for ", kInterrupted);
    claim_end();
    end_process(kDone);
}

void watch_over(Output& output, bool json, int seconds) {
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (seconds > 0 && left <= 0)
            end_waiting(output, json, "TIMEOUT", fmt::format("no end within {} s: waiting for ", seconds),
                        kTimeIsUp);
        pollfd signals{g_signal_pipe[0], POLLIN, 0};
        if (poll(&signals, 1, seconds > 0 ? static_cast<int>(left) : -1) > 0) end_for_signal(output, json);
    }
}

}  // namespace

void waiting_for(Layer layer, const char* what) {
    const std::lock_guard lock(state().mutex);
    state().awaited = {layer, what};
}

Guard::Guard(Output& output, bool json, int seconds) {
    if (pipe(g_signal_pipe) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    also_say("");
    struct sigaction action {};
    action.sa_handler = tell_guard;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    std::thread([=, &output] { watch_over(output, json, seconds); }).detach();
    g_guard = this;
}

void Guard::signals_are_the_end() {
    const std::lock_guard lock(state().mutex);
    state().signals_are_the_end = true;
}

void Guard::also_say(const std::string& remedy) {
    const std::lock_guard lock(state().mutex);
    state().remedy = remedy.empty()
                         ? "--timeout gives it more time; \"kivctl doctor\" finds what does not answer"
                         : remedy;
}

Guard& guard() {
    return *g_guard;
}

void at_end(std::function<void()> action) {
    const std::lock_guard lock(state().mutex);
    state().at_end.push_back(std::move(action));
}

void claim_end() {
    static std::atomic_flag claimed;
    while (claimed.test_and_set())
        pause();  // The other thread ends the process.
}

void end_process(int status) {
    // Never unlocked: another thread that comes here must not end the process in the midst of it.
    state().mutex.lock();
    std::reverse(state().at_end.begin(), state().at_end.end());
    for (const auto& action : state().at_end)
        action();
    std::_Exit(status);
}

}  // namespace kivctl
