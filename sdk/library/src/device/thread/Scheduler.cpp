#include <kiv/Scheduler.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "base/libraryThread.h"

namespace kiv::device::thread {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLongestSleep{500};

/// `now` + `interval`, held inside what the clock can say.
Clock::time_point due(Clock::time_point now, milliseconds interval) {
    if (interval <= milliseconds::zero()) return now;
    const auto room = std::chrono::duration_cast<milliseconds>(Clock::time_point::max() - now);
    return interval < room ? now + interval : Clock::time_point::max();
}

}  // namespace

Scheduler::~Scheduler() {
    stop();
}

void Scheduler::start() {
    running_ = true;
    worker_ = start_library_thread([this] { runLoop(); });
}

void Scheduler::stop() {
    {
        const std::lock_guard lock(mutex_);
        running_ = false;
    }
    if (worker_.joinable()) worker_.join();
    std::unordered_map<uint64_t, ScheduledTask>
        removed;  // Destroyed after unlocking: a job may own the last pool.
    {
        const std::lock_guard lock(mutex_);
        removed.swap(tasks_);
    }
}

uint64_t Scheduler::schedulePeriodic(std::function<void()> task, milliseconds interval,
                                     std::shared_ptr<PeriodicThreadPool> pool) {
    const std::lock_guard lock(mutex_);
    const uint64_t id = nextId_++;
    tasks_[id] =
        ScheduledTask{std::move(task), interval, due(Clock::now(), interval), id, false, std::move(pool)};
    return id;
}

void Scheduler::cancel(uint64_t id) {
    decltype(tasks_)::node_type removed;  // Destroyed after unlocking, as in stop().
    const std::lock_guard lock(mutex_);
    removed = tasks_.extract(id);
}

void Scheduler::runLoop() {
    while (running_) {
        milliseconds sleep = kLongestSleep;
        try {
            sleep = pass();
        } catch (...) {
            // Out of memory while handing jobs over: the runs of this pass are lost, the timer goes on.
        }
        // Nothing wakes it early: docs/oddities.md.
        if (sleep >= milliseconds(1)) std::this_thread::sleep_for(sleep);
    }
}

milliseconds Scheduler::pass() {
    const Clock::time_point now = Clock::now();
    std::vector<std::pair<std::function<void()>, std::shared_ptr<PeriodicThreadPool>>> ready;
    Clock::time_point next = now + kLongestSleep;
    {
        const std::lock_guard lock(mutex_);
        for (auto& [id, job] : tasks_) {
            if (job.cancelled) continue;
            if (now >= job.nextRun) {
                ready.emplace_back(job.task, job.pool);
                job.nextRun = due(now, job.interval);  // Not from when it was due: docs/oddities.md.
            }
            next = std::min(next, job.nextRun);
        }
    }
    for (auto& [task, pool] : ready) {
        if (pool) pool->post(task);
    }
    return std::chrono::duration_cast<milliseconds>(next - now);
}

}  // namespace kiv::device::thread
