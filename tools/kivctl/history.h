/// The last hour of a card.
#ifndef KIVCTL_HISTORY_H
#define KIVCTL_HISTORY_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "failure.h"

namespace kivctl {

/// A ring of points for each series: what it takes of memory stays the same from the first point on.
class History {
  public:
    static constexpr std::size_t kPoints = 720;
    static constexpr std::chrono::seconds kInterval{5};

    /// Seven temperatures, two loads of each port, the PTP offset.
    static constexpr std::size_t kSeries = 12;
    using Values = std::array<float, kSeries>;  ///< Not a number where there is no good value.

    /// A point for each interval: those that nobody recorded are empty, and a second one in an interval
    /// replaces the first. A clock that was put back, or an hour ahead, begins a new history.
    void record(std::chrono::system_clock::time_point now, const Values& values);

    /// "interval_s", "newest" and "series", the oldest point first.
    Json json() const;

  private:
    void append(const Values& values);

    std::array<std::array<float, kPoints>, kSeries> points_{};
    std::size_t next_ = 0;
    std::size_t count_ = 0;
    int64_t newest_ = 0;  ///< Intervals since 1970.
};

}  // namespace kivctl

#endif
