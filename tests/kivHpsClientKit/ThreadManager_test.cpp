// The base of the long-lived worker threads: starting, stopping, starting again.
#include <kiv/ThreadManager.h>

#include "support/Test.h"

namespace {

struct Waiting : ThreadManager {
    using ThreadManager::wait_awhile;

    bool is_running() {
        const std::lock_guard lock(mutex);
        return running;
    }
};

TEST(ThreadManager, AStopIsNotLostAndEndsTheWaitAtOnce) {
    Waiting manager;
    manager.join_thread();  // Nothing to join.
    const Stopwatch stopwatch;
    for (int round = 0; round < 300; ++round) {
        manager.start_thread();
        if (round % 10 == 0) {
            EXPECT_TRUE(wait_until([&] { return manager.is_running(); }));
        }
        manager.join_thread();
        ASSERT_FALSE(manager.is_running()) << round;
        ASSERT_LT(stopwatch.elapsed(), std::chrono::seconds(20)) << round;
    }
}

TEST(ThreadManager, ANotificationEndsOneWaitAlsoWhenItCameBefore) {
    Waiting manager;
    for (int round = 0; round < 2; ++round) {
        manager.notify_all();
        const Stopwatch first;
        manager.wait_awhile(std::chrono::seconds(30));
        EXPECT_LT(first.elapsed(), std::chrono::seconds(20)) << round;
        const Stopwatch next;
        manager.wait_awhile(std::chrono::milliseconds(20));
        EXPECT_GE(next.elapsed(), std::chrono::milliseconds(20)) << "a thread would spin, round " << round;
    }
}

struct Failing : ThreadManager {
    void run_thread() override {
        if (++runs == 1) throw std::runtime_error("thread");
        throw 1;
    }
    int runs = 0;
};

TEST(ThreadManager, WhatTheThreadThrowsEndsTheThreadOnly) {
    Failing manager;
    for (int round = 1; round <= 2; ++round) {
        manager.start_thread();
        manager.join_thread();
        EXPECT_EQ(manager.runs, round);
    }
}

}  // namespace
