/// The end of waiting: a time limit for the whole command, and signals.
#ifndef KIVCTL_GUARD_H
#define KIVCTL_GUARD_H

#include <functional>
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
    /// No limit for 0 seconds. From now on SIGINT, SIGTERM and SIGHUP end the process at once, as
    /// interrupted; a closed pipe is a failure to write, and no signal.
    Guard(Output& output, bool json, int seconds);

    /// From now on a signal is how the command ends as it should.
    void signals_are_the_end();

    /// What the messages of time limit and signals add: what may go on without this program. Empty: what a
    /// command that changes nothing adds.
    void also_say(const std::string& remedy);

    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

/// The one of this process.
Guard& guard();

/// What end_process() is to remove; it runs once, on any thread. For each call one action, the last first.
void at_end(std::function<void()> action);

/// The calling thread is the one that says how the command ended. Does not return when another one is.
void claim_end();

/// Ends the process without waiting for the library's threads: its timers take half a second to close.
[[noreturn]] void end_process(int status);

}  // namespace kivctl

#endif
