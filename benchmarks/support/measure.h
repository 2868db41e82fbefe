/// Times several things in one process, so that a drifting machine changes all of them alike.
#ifndef KIV_BENCHMARKS_MEASURE_H
#define KIV_BENCHMARKS_MEASURE_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kivbench {

/// The processor time of a thread leaves out what it waits for, and what other programs take.
enum class Clock { Elapsed, ThisThread };

/// Does the thing so many times.
using Work = std::function<void(int)>;

/// A Work of something that is done once a call. The loop around it is part of the time, at its own price.
template <typename Once>
Work each(Once once) {
    return [once = std::move(once)](int times) mutable {
        for (int i = 0; i < times; ++i)
            once();
    };
}

struct Plan {
    int rounds = 7;       ///< Each times everything twice: in order, then in the opposite order.
    int repetitions = 1;  ///< In one timing.
    Clock clock = Clock::Elapsed;
};

/// Nanoseconds that one repetition took, a value for each timing.
class Times {
  public:
    void add(double nanoseconds) { values_.push_back(nanoseconds); }
    double median() const { return part(0.5); }
    double part(double share) const;  ///< So much of them, 0 to 1, took no longer.

  private:
    std::vector<double> values_;
};

double now(Clock clock);  ///< Nanoseconds.

/// Warms everything up, then times it as planned. The times stand in the order of the works.
std::vector<Times> measure(const Plan& plan, const std::vector<Work>& works);

/// The compiler must compute `value` and knows nothing of it afterwards.
template <typename Value>
void keep(Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

/// Throws std::runtime_error when what is measured does not work.
void require(bool holds, const std::string& what);

}  // namespace kivbench

#endif
