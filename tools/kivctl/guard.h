/// The end of waiting: a time limit for the whole command, and signals.
#ifndef KIVCTL_GUARD_H
#define KIVCTL_GUARD_H

#include <functional>
#include <optional>
#include <string>

#include "output.h"

namespace kivctl {

/// What the command is waiting for, for the message when the time is up. A text that lasts for ever; any
/// thread.
void waiting_for(Layer layer, const char* what);

/// Ends the process when the time is up, in the midst of whatever it does: a driver process that hangs
/// answers no call, and nothing in the process can end the wait.
class Guard {
  public:
    /// No limit for 0 seconds.
    Guard(Output& output, bool json, int seconds);

    /// From now on SIGINT and SIGTERM end the process at once: as done, or with the failure.
    void end_on_signals(std::optional<Failure> failure);

    /// What the message of the time limit adds: what may go on without this program.
    void also_say(std::string remedy);

    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

/// The one of this process.
Guard& guard();

/// What end_process() is to remove; it runs once, on any thread. For each call one action, the last first.
void at_end(std::function<void()> action);

/// Ends the process without waiting for the library's threads: its timers take half a second to close.
[[noreturn]] void end_process(int status);

}  // namespace kivctl

#endif
