// The base of the long-lived worker threads: starting, stopping, starting again.
#include <ThreadManager.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "Waiting.h"

namespace {

struct Waiting : ThreadManager {
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
