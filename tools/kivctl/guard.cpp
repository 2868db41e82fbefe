#include "guard.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

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
    Awaited awaited{Layer::Driver, "the driver"};
    std::string remedy;
    std::optional<Failure> failure_of_signal;
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

[[noreturn]] void end_for_signal(Output& output, bool json) {
    std::optional<Failure> failure;
    {
        const std::lock_guard lock(state().mutex);
        failure = state().failure_of_signal;
    }
    if (failure) output.print_failure(*failure, json);
    end_process(failure ? failure->exit : kDone);
}

[[noreturn]] void end_for_time(Output& output, bool json, int seconds) {
    Awaited awaited{};
    std::string remedy;
    {
        const std::lock_guard lock(state().mutex);
        awaited = state().awaited;
        remedy = state().remedy;
    }
    output.print_failure(
        Failure(awaited.layer, "TIMEOUT",
                fmt::format("no end within {} s: waiting for {}", seconds, awaited.what), remedy),
        json);
    end_process(kTimeIsUp);
}

void watch_over(Output& output, bool json, int seconds) {
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (seconds > 0 && left <= 0) end_for_time(output, json, seconds);
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
    state().remedy = "--timeout gives it more time; \"kivctl doctor\" finds what does not answer";
    // Signals find the main thread or this one; both only write into the pipe.
    std::thread([=, &output] { watch_over(output, json, seconds); }).detach();
    g_guard = this;
}

void Guard::end_on_signals(std::optional<Failure> failure) {
    {
        const std::lock_guard lock(state().mutex);
        state().failure_of_signal = std::move(failure);
    }
    struct sigaction action {};
    action.sa_handler = tell_guard;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM})
        sigaction(signal, &action, nullptr);
}

void Guard::also_say(std::string remedy) {
    const std::lock_guard lock(state().mutex);
    state().remedy = std::move(remedy);
}

Guard& guard() {
    return *g_guard;
}

void at_end(std::function<void()> action) {
    const std::lock_guard lock(state().mutex);
    state().at_end.push_back(std::move(action));
}

void end_process(int status) {
    // Never unlocked: another thread that comes here must not end the process in the midst of it.
    state().mutex.lock();
    for (auto action = state().at_end.rbegin(); action != state().at_end.rend(); ++action)
        (*action)();
    std::_Exit(status);
}

}  // namespace kivctl
