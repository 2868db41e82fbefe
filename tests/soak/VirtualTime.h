/// Time that passes only while nobody runs. Threads that are started under it run one at a time, in a fixed
/// order; when all of them wait, the clock goes on to the next end of a wait. The program's own definitions
/// of the clocks, of pauses, of condition variables and of starting and joining threads stand before the
/// system's.
#ifndef KIV_TEST_VIRTUAL_TIME_H
#define KIV_TEST_VIRTUAL_TIME_H

#include <chrono>

/// One at a time. The calling thread and all that it starts live by it; they have ended before the object
/// does. A thread must not wait while it has a lock that another one takes.
class VirtualTime {
  public:
    /// The steady clock begins at `start`.
    explicit VirtualTime(std::chrono::nanoseconds start);
    ~VirtualTime();
    VirtualTime(const VirtualTime&) = delete;
    VirtualTime& operator=(const VirtualTime&) = delete;

    /// Lets the others run until so much time has passed, and no pause of theirs ends at that moment.
    void pass(std::chrono::nanoseconds length);
};

#endif
