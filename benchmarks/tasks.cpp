// The polls' pool and timer. The pool against Boost.Asio's thread pool and a bare hand-over between two
// threads; the timer's pass against a bare walk of as many records; its lateness against a bare sleep.
#include <kiv/PeriodicThreadPool.h>
#include <kiv/Scheduler.h>
#include "support/machine.h"
#include "support/measure.h"
#include "support/report.h"

#if __has_include(<boost/asio/thread_pool.hpp>)
#define BOOST_ASIO_HAS_STD_INVOKE_RESULT 1  // Boost 1.74 asks older compilers for what C++20 has removed.
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#define KIV_HAS_ASIO 1
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using kiv::device::thread::PeriodicThreadPool;
using kiv::device::thread::ScheduledTask;
using kiv::device::thread::Scheduler;
using kivbench::each;
using kivbench::measure;
using kivbench::Plan;
using kivbench::Report;
using kivbench::Times;
using kivbench::Work;
using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

constexpr unsigned kWorkers = 4;  ///< As many as the library has.
[[maybe_unused]] constexpr const char* kAsio = "Boost.Asio's thread_pool";

/// Waits for a number of events.
class Gate {
  public:
    void expect(int count) { left_ = count; }
    void arrive() {
        if (--left_ != 0) return;
        const std::lock_guard lock(mutex_);
        open_ = true;
        opened_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        opened_.wait(lock, [this] { return open_; });
        open_ = false;
    }

  private:
    std::atomic<int> left_{0};
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

/// So many small tasks at once, until the last has run.
template <typename Post>
Work tasks(Post post) {
    return [post](int count) {
        Gate done;
        done.expect(count);
        for (int i = 0; i < count; ++i)
            post([&done] { done.arrive(); });
        done.wait();
    };
}

/// One task at a time, each until it has run: a worker is woken for each.
template <typename Post>
Work hand_over(Post post) {
    return each([post] {
        Gate done;
        done.expect(1);
        post([&done] { done.arrive(); });
        done.wait();
    });
}

/// Threads that do what they are told, one thing at a time: the least that a hand-over to one of them can be.
class Bare {
  public:
    Bare() {
        for (std::thread& thread : threads_)
            thread = std::thread([this] { serve(); });
    }
    ~Bare() {
        {
            const std::lock_guard lock(mutex_);
            ended_ = true;
        }
        filled_.notify_all();
        for (std::thread& thread : threads_)
            thread.join();
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void post(std::function<void()> task) {
        {
            const std::lock_guard lock(mutex_);
            task_ = std::move(task);
        }
        filled_.notify_one();
    }

  private:
    void serve() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock lock(mutex_);
                filled_.wait(lock, [this] { return task_ || ended_; });
                if (ended_) return;
                task.swap(task_);
            }
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable filled_;
    std::function<void()> task_;
    bool ended_ = false;
    std::array<std::thread, kWorkers> threads_;
};

/// A time of ours, against one that shall be equal: what one and the same pool differs by from run to run is
/// allowed.
void compare(Report& report, const char* name, const Times& ours, const Times& floor, const char* what) {
    report.add({name, "ns", ours.median(), floor.median(), what, {{1.05, 0}}});
}

/// On one core: whether a sleeping thread is woken on its own or on the waker's is up to the system, differs
/// for threads of one program by more than all the rest, and costs ten times as much on a virtual machine.
void measure_hand_over(Report& report) {
    constexpr const char* kName = "hand-over to a worker and back";
    const auto one_core = kivbench::stay_on_one_core();
    PeriodicThreadPool pool(kWorkers);
    Bare bare;
    std::vector<Work> works{hand_over([&pool](auto task) { pool.post(std::move(task)); }),
                            hand_over([&bare](auto task) { bare.post(std::move(task)); })};
#ifdef KIV_HAS_ASIO
    boost::asio::thread_pool asio(kWorkers);
    works.push_back(hand_over([&asio](auto task) { boost::asio::post(asio, std::move(task)); }));
#endif
    const auto times = measure(Plan{.rounds = 25, .repetitions = 1000}, works);
    if (times.size() > 2) {
        compare(report, kName, times[0], times[2], kAsio);
    } else {
        report.skip(kName, "Boost.Asio is not installed");
    }
    compare(report, kName, times[0], times[1], "bare condition variable");
}

void measure_tasks(Report& report) {
    constexpr const char* kName = "a task of 20,000";
#ifdef KIV_HAS_ASIO
    PeriodicThreadPool pool(kWorkers);
    boost::asio::thread_pool asio(kWorkers);
    const auto times = measure(Plan{.rounds = 15, .repetitions = 20'000},
                               {tasks([&pool](auto task) { pool.post(std::move(task)); }),
                                tasks([&asio](auto task) { boost::asio::post(asio, std::move(task)); })});
    compare(report, kName, times[0], times[1], kAsio);
#else
    report.skip(kName, "Boost.Asio is not installed");
#endif
}

/// A callable that is copied once in each pass of the timer, on its thread: it notes the processor time of so
/// many passes.
class Witness {
  public:
    struct Notes {
        const int passes;  ///< In one time.
        Gate done{};
        int seen = 0;
        double start = 0;
        Times times{};
    };
    explicit Witness(Notes& notes) : notes_(&notes) {}
    Witness(const Witness& other) : notes_(other.notes_) {
        if (notes_->seen++ % notes_->passes != 0) return;
        const double now = kivbench::now(kivbench::Clock::ThisThread);
        if (notes_->seen > 1) notes_->times.add((now - notes_->start) / notes_->passes);
        notes_->start = now;
        notes_->done.arrive();
    }
    Witness(Witness&&) = default;
    Witness& operator=(const Witness&) = default;
    Witness& operator=(Witness&&) = default;
    ~Witness() = default;
    void operator()() const {}

  private:
    Notes* notes_;
};

/// Nanoseconds of one pass over so many jobs of which none is due. One more is always due, so that the
/// timer does not sleep; it has no pool, so that nothing runs.
double pass_of(int jobs) {
    Witness::Notes notes{1 + 300'000 / jobs};
    notes.done.expect(8);
    Scheduler scheduler;
    const auto pool = std::make_shared<PeriodicThreadPool>(0);
    for (int i = 0; i < jobs; ++i)
        scheduler.schedulePeriodic([] {}, std::chrono::hours(1), pool);
    scheduler.schedulePeriodic(Witness(notes), milliseconds(0), nullptr);
    notes.seen = 0;  // To store it has copied it.
    scheduler.start();
    notes.done.wait();
    scheduler.stop();
    return notes.times.median();
}

/// The least that a pass can be: every record's time is looked at.
double walk_of(int jobs) {
    std::unordered_map<uint64_t, ScheduledTask> records;
    for (int i = 0; i < jobs; ++i)
        records[static_cast<uint64_t>(i)] = {[] {}, {},    SteadyClock::now() + std::chrono::hours(1),
                                             0,     false, nullptr};
    auto first = SteadyClock::time_point::max();
    const auto times = measure(Plan{7, 1 + 300'000 / jobs, kivbench::Clock::ThisThread}, {each([&] {
                                   const auto now = SteadyClock::now();
                                   for (const auto& [id, record] : records) {
                                       if (now < record.nextRun) first = std::min(first, record.nextRun);
                                   }
                                   kivbench::keep(first);
                               })});
    return times[0].median();
}

void measure_pass(Report& report) {
    double thousand = 0;
    double thousand_walked = 0;
    for (const int jobs : {10, 1000, 100'000}) {
        const double ours = pass_of(jobs) / jobs;
        const double walked = walk_of(jobs) / jobs;
        report.add({"pass of " + std::to_string(jobs) + " jobs, each", "ns", ours, walked,
                    "walk of as many records"});
        if (jobs == 1000) {
            thousand = ours;
            thousand_walked = walked;
        }
        // Linear: a job costs no more among many, but for the memory that no cache holds.
        if (jobs == 100'000)
            report.add({"a job of 100,000",
                        "ns",
                        ours,
                        thousand * std::max(1.0, walked / thousand_walked),
                        "a job of 1,000, grown as a walk's",
                        {{2, 0}}});
    }
}

/// How late each wake-up is, for a bare sleep of a second and for a job with that period.
void measure_lateness(Report& report, const char* name) {
    constexpr auto kPeriod = std::chrono::seconds(1);
    constexpr int kRuns = 8;
    Times ours;
    Times bare;
    Gate done;
    done.expect(kRuns);
    {
        const auto pool = std::make_shared<PeriodicThreadPool>(kWorkers);
        Scheduler scheduler;
        SteadyClock::time_point due = SteadyClock::now() + kPeriod;
        int runs = 0;
        const auto job = [&] {
            const auto now = SteadyClock::now();
            if (++runs > kRuns) return;
            ours.add(std::chrono::duration<double, std::micro>(now - due).count());
            due = now + kPeriod;
            done.arrive();
        };
        scheduler.start();
        scheduler.schedulePeriodic(job, kPeriod, pool);
        for (int i = 0; i < kRuns; ++i) {
            const auto start = SteadyClock::now();
            std::this_thread::sleep_for(kPeriod);
            bare.add(std::chrono::duration<double, std::micro>(SteadyClock::now() - start - kPeriod).count());
        }
        done.wait();
        scheduler.stop();
        pool->shutdown();
    }
    // In milliseconds: what the machine's own scheduler does is in both.
    report.add({std::string("lateness of a job each second, ") + name,
                "ms",
                ours.median() / 1000,
                bare.median() / 1000,
                "bare sleep of a second",
                {{1, 5}}});
    report.add({std::string("the latest of 8, ") + name, "ms", ours.part(1) / 1000, bare.part(1) / 1000,
                "bare sleep of a second"});
}

void measure_all(Report& report) {
    report.about("worker pool");
    measure_hand_over(report);
    measure_tasks(report);
    report.about("timer");
    measure_pass(report);
    measure_lateness(report, "idle");
    std::atomic<bool> enough{false};
    std::vector<std::thread> busy(std::thread::hardware_concurrency());
    for (std::thread& thread : busy) {
        thread = std::thread([&enough] {
            while (!enough) {
            }
        });
    }
    measure_lateness(report, "all cores busy");
    enough = true;
    for (std::thread& thread : busy)
        thread.join();
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, measure_all);
}
