#include "support/measure.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <ctime>
#include <stdexcept>

namespace kivbench {

namespace {

void time_once(const Plan& plan, const Work& work, Times& times) {
    const double start = now(plan.clock);
    work(plan.repetitions);
    times.add((now(plan.clock) - start) / plan.repetitions);
}

}  // namespace

double Times::part(double share) const {
    require(!values_.empty(), "nothing was timed");
    std::vector<double> sorted = values_;
    std::sort(sorted.begin(), sorted.end());
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<std::size_t>(std::lround(share * last))];
}

double now(Clock clock) {
    timespec time{};
    clock_gettime(clock == Clock::Elapsed ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID, &time);
    return 1e9 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec);
}

std::vector<Times> measure(const Plan& plan, const std::vector<Work>& works) {
    for (const Work& work : works)
        work(plan.repetitions);
    std::vector<Times> times(works.size());
    for (int round = 0; round < plan.rounds; ++round) {
        for (std::size_t i = 0; i < works.size(); ++i)
            time_once(plan, works[i], times[i]);
        for (std::size_t i = works.size(); i-- > 0;)
            time_once(plan, works[i], times[i]);
    }
    return times;
}

void require(bool holds, const std::string& what) {
    if (!holds) throw std::runtime_error("cannot measure: " + what);
}

}  // namespace kivbench
