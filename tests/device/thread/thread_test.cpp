// The timer that decides when a job is due, and the pool that runs it. Lower bounds of times are exact, upper
// ones generous: machines are slow at times, the steady clock is never early.
#include <kiv/PeriodicThreadPool.h>
#include <kiv/Scheduler.h>
#include <kiv/ThreadManager.h>

#include <array>
#include <mutex>

#include "support/Test.h"

namespace {

using namespace std::chrono_literals;
using namespace kiv::device::thread;
using Clock = std::chrono::steady_clock;

/// Notes when it runs; closed, it holds up who runs it until it is opened.
struct Probe {
    void operator()() {
        const std::size_t run = next++;
        if (run < times.size()) times[run] = Clock::now();
        ++count;
        EXPECT_TRUE(wait_until([this] { return open.load(); }));
    }
    bool reach(std::size_t number) const {
        return wait_until([&] { return count >= number; });
    }
    std::atomic<std::size_t> next{0}, count{0};
    std::atomic<bool> open{true};
    std::array<Clock::time_point, 9> times;
};

/// A job that acts when it is copied: the timer copies a job when it finds it due, under its lock.
struct ActsOnTheTimer {
    explicit ActsOnTheTimer(std::function<void()> action) : act(std::move(action)) {}
    ActsOnTheTimer(const ActsOnTheTimer& other) : act(other.act) { act(); }
    ActsOnTheTimer(ActsOnTheTimer&&) = default;
    void operator()() const {}
    std::function<void()> act;
};

/// Waits until the pool of one worker has run every job it holds by now.
void drain(PeriodicThreadPool& pool) {
    std::promise<void> done;
    pool.post([&] { done.set_value(); });
    EXPECT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
}

class SchedulerTest : public testing::Test {
  protected:
    /// The first pass that finds the job due waits until the gate is opened.
    void hold_up_the_timer(std::chrono::milliseconds interval) {
        gate_.open = false;
        scheduler_.schedulePeriodic(ActsOnTheTimer(std::ref(gate_)), interval, pool_);
    }

    Probe gate_, runs_, others_;
    std::shared_ptr<PeriodicThreadPool> pool_ = std::make_shared<PeriodicThreadPool>(1);
    Scheduler scheduler_;
};

TEST_F(SchedulerTest, RunsComeOneIntervalApartFromTheRegistrationOn) {
    const auto registered = Clock::now();
    scheduler_.schedulePeriodic(std::ref(runs_), 300ms, pool_);
    std::this_thread::sleep_for(200ms);
    const auto started = Clock::now();
    scheduler_.start();
    EXPECT_TRUE(runs_.reach(3));
    scheduler_.stop();
    EXPECT_LT(runs_.times[0], started + 300ms) << "timed from the start";
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_GE(runs_.times[i], registered + (i + 1) * 300ms) << i;
}

TEST_F(SchedulerTest, ALateRunIsNotCaughtUpAndTheNextComesOneIntervalLater) {
    // The run is due while the pass before it is held up.
    constexpr auto kInterval = 300ms;
    const auto registered = Clock::now();
    hold_up_the_timer(1ms);
    scheduler_.schedulePeriodic(std::ref(runs_), kInterval, pool_);
    scheduler_.start();
    EXPECT_TRUE(gate_.reach(1));
    std::this_thread::sleep_for(2 * kInterval + 100ms);
    const auto opened = Clock::now();
    gate_.open = true;
    EXPECT_TRUE(runs_.reach(3));
    scheduler_.stop();
    if (gate_.times[0] >= registered + kInterval) GTEST_SKIP() << "the machine is too slow";
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_GE(runs_.times[i], opened + i * kInterval) << i;
}

TEST_F(SchedulerTest, TheTimerNeverSleepsLongerThanHalfASecond) {
    scheduler_.schedulePeriodic(std::ref(others_), std::chrono::milliseconds::max(), pool_);
    hold_up_the_timer(700ms);
    scheduler_.start();
    EXPECT_TRUE(gate_.reach(1));
    const auto opened = Clock::now();
    gate_.open = true;
    scheduler_.cancel(2);
    scheduler_.schedulePeriodic(std::ref(runs_), 1ms, pool_);
    EXPECT_TRUE(runs_.reach(1));
    EXPECT_GE(runs_.times[0], opened + 500ms);
    EXPECT_LT(runs_.times[0], opened + 5s);
    EXPECT_EQ(others_.count, 0u);
}

TEST_F(SchedulerTest, IntervalsOfZeroAndBelowAreDueAtEveryPass) {
    scheduler_.schedulePeriodic(std::ref(runs_), 0ms, pool_);
    scheduler_.schedulePeriodic(std::ref(others_), std::chrono::milliseconds::min(), pool_);
    scheduler_.schedulePeriodic({}, 1ms, pool_);
    scheduler_.schedulePeriodic([] { ADD_FAILURE(); }, 1ms, nullptr);
    scheduler_.start();
    EXPECT_TRUE(runs_.reach(50));
    scheduler_.stop();
    drain(*pool_);
    EXPECT_EQ(others_.count, runs_.count);
}

TEST_F(SchedulerTest, ARunMayOverlapTheOneBefore) {
    const auto pool = std::make_shared<PeriodicThreadPool>(3);
    gate_.open = false;
    scheduler_.schedulePeriodic(std::ref(gate_), 10ms, pool);
    scheduler_.start();
    EXPECT_TRUE(gate_.reach(3));
    gate_.open = true;
}

TEST_F(SchedulerTest, CancellingLeavesTheRunsThatAPoolHoldsAndStoppingRemovesEveryJob) {
    gate_.open = false;
    pool_->post(std::ref(gate_));
    EXPECT_EQ(scheduler_.schedulePeriodic(std::ref(runs_), 10ms, pool_), 1u);
    // Each pass that finds the second job due has found the first one, too.
    const auto others = std::make_shared<PeriodicThreadPool>(1);
    scheduler_.schedulePeriodic(std::ref(others_), 10ms, others);
    scheduler_.start();
    EXPECT_TRUE(others_.reach(2));
    scheduler_.cancel(12345);
    scheduler_.cancel(1);
    drain(*others);
    const std::size_t cancelled_at = others_.count;
    EXPECT_TRUE(others_.reach(cancelled_at + 5));
    scheduler_.stop();
    EXPECT_EQ(runs_.count, 0u);
    gate_.open = true;
    EXPECT_TRUE(runs_.reach(1));
    drain(*pool_);
    const std::size_t held = runs_.count;
    EXPECT_LE(held, cancelled_at + 1);
    scheduler_.schedulePeriodic(std::ref(runs_), 1ms, pool_);
    scheduler_.stop();
    EXPECT_EQ(scheduler_.schedulePeriodic(std::ref(others_), 1ms, others), 4u);
    scheduler_.start();
    EXPECT_TRUE(others_.reach(others_.count + 3));
    EXPECT_EQ(runs_.count, held);
}

TEST(PeriodicThreadPool, JobsStartInTheOrderPostedAlsoAfterOneThatFails) {
    std::string order;
    PeriodicThreadPool pool(1);
    pool.post([] { throw std::runtime_error("job"); });
    for (const char letter : std::string("abcdef"))
        pool.post([&order, letter] { order += letter; });
    drain(pool);
    EXPECT_EQ(order, "abcdef");
}

TEST(PeriodicThreadPool, AJobWaitsForNoOtherWhileAWorkerIsIdle) {
    constexpr std::size_t kWorkers = 4;
    PeriodicThreadPool pool(kWorkers);
    for (int round = 0; round < 50; ++round) {
        Probe together;
        together.open = false;
        std::atomic<std::size_t> ended{0};
        for (std::size_t i = 0; i < kWorkers; ++i)
            pool.post([&] {
                together();
                ++ended;
            });
        EXPECT_TRUE(together.reach(kWorkers)) << round;
        together.open = true;
        ASSERT_TRUE(wait_until([&] { return ended == kWorkers; })) << round;
    }
}

TEST(PeriodicThreadPool, ShutdownLetsRunningJobsFinishAndRunsNoQueuedOne) {
    Probe gate;
    gate.open = false;
    const auto token = std::make_shared<int>();
    {
        PeriodicThreadPool pool(2);
        pool.post(std::ref(gate));
        pool.post(std::ref(gate));
        EXPECT_TRUE(gate.reach(2));
        pool.post([token] { ADD_FAILURE(); });
        const auto ending = std::async(std::launch::async, [&] { pool.shutdown(); });
        EXPECT_EQ(ending.wait_for(100ms), std::future_status::timeout);
        gate.open = true;
        ending.wait();
        pool.post([token] { ADD_FAILURE(); });
        EXPECT_EQ(token.use_count(), 3) << "queued jobs stay until the pool goes";
    }
    EXPECT_EQ(token.use_count(), 1);
}

TEST(PeriodicThreadPool, AJobMayReleaseItsOwnPool) {
    Probe gate;
    gate.open = false;
    std::promise<bool> released;
    std::shared_ptr<PeriodicThreadPool> pool(new PeriodicThreadPool(2), [&](PeriodicThreadPool* last) {
        delete last;
        released.set_value(PeriodicThreadPool::onWorkerThread());
    });
    pool->post([&gate, pool] { gate(); });
    pool.reset();
    gate.open = true;
    EXPECT_TRUE(released.get_future().get());
}

/// One thread that shuts down waits for the workers, and so does the other.
TEST(PeriodicThreadPool, MayBeShutDownByTwoThreadsAtOnceAndByAJob) {
    Probe gate;
    gate.open = false;
    PeriodicThreadPool pool(2);
    pool.post([&] {
        gate();
        pool.shutdown();  // Only asks: it would wait for itself.
    });
    EXPECT_TRUE(gate.reach(1));
    const auto shut_down = [&pool] { pool.shutdown(); };
    const auto first = std::async(std::launch::async, shut_down);
    const auto second = std::async(std::launch::async, shut_down);
    EXPECT_EQ(first.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(second.wait_for(0ms), std::future_status::timeout);
    gate.open = true;
    EXPECT_EQ(first.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(second.wait_for(20s), std::future_status::ready);
}

/// What the calling thread blocks of: a signal of the application, its end, a fault.
std::string blocked_signals() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string blocked;
    for (const int number : {SIGUSR1, SIGTERM, SIGSEGV})
        blocked += sigismember(&mask, number) != 0 ? '1' : '0';
    return blocked;
}

struct TellsOnItsThread : ThreadManager {
    void run_thread() override { told.set_value(blocked_signals()); }
    std::promise<std::string> told;
};

TEST(LibraryThreads, LeaveTheSignalsOfTheApplicationAlone) {
    std::promise<std::string> of_worker, of_timer;
    const auto pool = std::make_shared<PeriodicThreadPool>(1);
    pool->post([&] { of_worker.set_value(blocked_signals()); });
    EXPECT_EQ(of_worker.get_future().get(), "110");
    TellsOnItsThread manager;
    manager.start_thread();
    EXPECT_EQ(manager.told.get_future().get(), "110");
    manager.join_thread();
    Scheduler scheduler;
    std::once_flag told;
    const auto tell = [&] { of_timer.set_value(blocked_signals()); };
    scheduler.schedulePeriodic(ActsOnTheTimer([&] { std::call_once(told, tell); }), 1ms, nullptr);
    scheduler.start();
    EXPECT_EQ(of_timer.get_future().get(), "110");
    scheduler.stop();
    EXPECT_EQ(blocked_signals(), "000") << "the starting thread has its mask back";
}

}  // namespace
