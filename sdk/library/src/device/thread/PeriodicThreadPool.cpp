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
            threads_.emplace_back([this] { workerLoop(); });
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
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    cv_.notify_one();
}

void PeriodicThreadPool::shutdown() {
    {
        const std::lock_guard lock(mutex_);
        running_ = false;
    }
    cv_.notify_all();
    for (std::thread& thread : threads_) {
        if (!thread.joinable()) continue;
        if (thread.get_id() == std::this_thread::get_id()) {
            thread
                .detach();  // exit() called by a job: this worker runs the destructors and never comes back.
        } else {
            thread.join();
        }
    }
}

bool PeriodicThreadPool::onWorkerThread() {
    return t_on_worker;
}

void PeriodicThreadPool::workerLoop() {
    t_on_worker = true;
    while (running_) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [this] { return !tasks_.empty() || !running_; });
            if (tasks_.empty()) return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        try {
            task();
        } catch (...) {
            // A job that fails is dropped; its worker goes on.
        }
    }
}

}  // namespace kiv::device::thread
