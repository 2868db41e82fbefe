#include <kiv/PeriodicThreadPool.h>

#include <utility>

#include "base/libraryThread.h"

namespace kiv::device::thread {

namespace {
thread_local const void* t_pool = nullptr;  ///< State of the pool whose worker this is.
}

PeriodicThreadPool::PeriodicThreadPool(unsigned threadCount) {
    try {
        threads_.reserve(threadCount);
        for (unsigned i = 0; i < threadCount; ++i)
            threads_.emplace_back(start_library_thread([state = state_] { workerLoop(*state); }));
    } catch (...) {
        shutdown();
        throw;
    }
}

PeriodicThreadPool::~PeriodicThreadPool() {
    ask_to_end();
    join_workers();
}

void PeriodicThreadPool::post(std::function<void()> task) {
    {
        const std::lock_guard lock(state_->mutex);
        state_->tasks.push_back(std::move(task));
        if (!state_->calls_one()) return;
    }
    state_->cv.notify_one();
}

/// One at a time is on its way, and calls the next when it leaves jobs behind: a call costs more than a small
/// job, and workers that all come at once for a few jobs stand in each other's way and in that of post().
bool PeriodicThreadPool::State::calls_one() {
    if (tasks.empty() || asleep == 0 || called > 0) return false;
    ++called;
    return true;
}

void PeriodicThreadPool::shutdown() {
    ask_to_end();
    if (t_pool != state_.get()) join_workers();
}

void PeriodicThreadPool::ask_to_end() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->running = false;
    }
    state_->cv.notify_all();
}

/// A job that owned the last reference to its pool still runs: its worker is let go.
void PeriodicThreadPool::join_workers() {
    const std::lock_guard lock(join_mutex_);
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
    return t_pool != nullptr;
}

void PeriodicThreadPool::workerLoop(State& state) {
    t_pool = &state;
    while (state.running) {
        std::function<void()> task;
        bool calls_next = false;
        {
            UniqueLock lock(state.mutex);
            while (state.tasks.empty() && state.running) {
                ++state.asleep;
                state.cv.wait(lock);
                --state.asleep;
                // Whoever comes counts as the called one: at worst one more is called.
                if (state.called > 0) --state.called;
            }
            if (state.tasks.empty()) return;
            task = std::move(state.tasks.front());
            state.tasks.pop_front();
            calls_next = state.calls_one();
        }
        if (calls_next) state.cv.notify_one();
        try {
            task();
        } catch (...) {
            // A job that fails is dropped; its worker goes on.
        }
    }
}

}  // namespace kiv::device::thread
