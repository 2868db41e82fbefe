/// A timer thread: it decides when a job is due, a PeriodicThreadPool runs it.
#ifndef KIV_SCHEDULER_H
#define KIV_SCHEDULER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include <kiv/PeriodicThreadPool.h>
#include <kiv/kiv_export.h>
#include <kiv/threadSafety.h>

namespace kiv::device::thread {

/// One registered job.
struct ScheduledTask {
    std::function<void()> task;
    std::chrono::milliseconds interval{0};
    std::chrono::steady_clock::time_point nextRun;
    uint64_t id = 0;
    /// Skipped by the timer when set. Nothing sets it, cancel() removes the job; it stays as a part of the
    /// record.
    bool cancelled = false;
    std::shared_ptr<PeriodicThreadPool> pool;
};

/// A job runs first one interval after its registration, then one interval after each pass of the timer that
/// found it due: lateness is not caught up, missed periods are dropped. A run may overlap the one before. The
/// timer wakes for the next due job, at least every 500 ms; nothing wakes it earlier.
///
/// Any thread may register and cancel jobs. start() and stop() are for one thread at a time; stop() not for
/// the timer thread or a job that somebody waits for.
class KIV_API Scheduler {
  public:
    Scheduler() = default;
    ~Scheduler();  ///< As stop().

    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    /// Starts the timer. A second start without a stop ends the process.
    void start();

    /// Ends and joins the timer (after its present sleep, at most about 500 ms) and removes every job.
    void stop();

    /// Registers a job, also before start(). An interval of 0 or below is due at every pass. Returns the
    /// job's id: 1, 2, ..., never reused. With an empty pool the job is timed, but never runs.
    uint64_t schedulePeriodic(std::function<void()> task, std::chrono::milliseconds interval,
                              std::shared_ptr<PeriodicThreadPool> pool);

    /// Removes a job; an unknown id is ignored. A run that a pool already holds still happens.
    void cancel(uint64_t id);

  private:
    KIV_LOCAL void runLoop();
    KIV_LOCAL std::chrono::milliseconds pass();  ///< Hands over what is due; returns the time to sleep.

    std::atomic<bool> running_{false};
    std::thread worker_;
    std::mutex mutex_;  ///< Never held while posting, sleeping or destroying a job.
    std::unordered_map<uint64_t, ScheduledTask> tasks_ KIV_GUARDED_BY(mutex_);
    uint64_t nextId_ KIV_GUARDED_BY(mutex_) = 1;
};

}  // namespace kiv::device::thread

#endif
