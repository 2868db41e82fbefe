#include "PeriodicThreadPool.h"

#include <utility>

namespace kiv::device::thread {

namespace {
thread_local bool t_on_worker = false;
}

PeriodicThreadPool::PeriodicThreadPool(unsigned threadCount) {
    try {
        threads_.reserve(threadCount);
        for (unsigned i = 0; i < threadCount; ++i)
            threads_.emplace_back([state = state_] { workerLoop(*state); });
    } catch (...) {
        shutdown();
        throw;
    }
}

PeriodicThreadPool::~PeriodicThreadPool() {
    shutdown();
}

void PeriodicThreadPool::post(std::function<void()> task) {
    {
        const std::lock_guard lock(state_->mutex);
        state_->tasks.push_back(std::move(task));
    }
    state_->cv.notify_one();
}

void PeriodicThreadPool::shutdown() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->running = false;
    }
    state_->cv.notify_all();
    for (std::thread& thread : threads_) {
        if (!thread.joinable()) continue;
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }
}

bool PeriodicThreadPool::onWorkerThread() {
    return t_on_worker;
}

void PeriodicThreadPool::workerLoop(State& state) {
    t_on_worker = true;
    while (state.running) {
        std::function<void()> task;
        {
            std::unique_lock lock(state.mutex);
            state.cv.wait(lock, [&state] { return !state.tasks.empty() || !state.running; });
            if (state.tasks.empty()) return;
            task = std::move(state.tasks.front());
            state.tasks.pop_front();
        }
        try {
            task();
        } catch (...) {
            // A job that fails is dropped; its worker goes on.
        }
    }
}

}  // namespace kiv::device::thread
