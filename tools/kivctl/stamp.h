/// When something was seen.
#ifndef KIVCTL_STAMP_H
#define KIVCTL_STAMP_H

#include <chrono>

namespace kivctl {

using Clock = std::chrono::steady_clock;

/// By both clocks: ages are of the steady one, points in time of the other.
struct Stamp {
    Clock::time_point steady = Clock::now();
    std::chrono::system_clock::time_point wall = std::chrono::system_clock::now();
};

}  // namespace kivctl

#endif
