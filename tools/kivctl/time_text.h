/// Times as a person reads them.
#ifndef KIVCTL_TIME_TEXT_H
#define KIVCTL_TIME_TEXT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "failure.h"

namespace kivctl {

/// PTP time, in nanoseconds since 1970 TAI: "text", and "tai_ns" as decimal digits. With the offset of UTC
/// the text is UTC, else TAI; it says which.
Json tai_json(uint64_t nanoseconds, std::optional<int32_t> utc_offset);

/// The present time with milliseconds: local for a person, UTC for a program.
std::string time_now(bool utc);

/// "0.4 s", "45 s", "12 min", "3 h"
std::string short_time(double seconds);

/// A point in time for a program: UTC with milliseconds.
std::string utc_text(std::chrono::system_clock::time_point time);

/// "0:07"
std::string minutes_and_seconds(std::chrono::steady_clock::duration time);

}  // namespace kivctl

#endif
