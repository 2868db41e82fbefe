#include <kiv/ThreadManager.h>

#include <chrono>

#include "base/libraryThread.h"

namespace {
thread_local const ThreadManager* t_current = nullptr;  ///< The manager whose thread this is.
}

ThreadManager::~ThreadManager() = default;

void ThreadManager::run_thread() {
    if (!set_running()) return;
    while (wait_awhile(std::chrono::seconds(1))) {
    }
}

void ThreadManager::start_thread() {
    {
        const std::lock_guard lock(mutex);
        stop_requested = false;
        wake = false;
    }
    thread_ = kiv::start_library_thread([this] {
        t_current = this;
        try {
            run_thread();
        } catch (...) {
            // Nobody is left to tell: the thread ends.
        }
    });
}

void ThreadManager::notify_all() {
    {
        const std::lock_guard lock(mutex);
        wake = true;
    }
    condition.notify_all();
}

void ThreadManager::join_thread() {
    request_stop();
    notify_all();
    if (!on_own_thread() && thread_.joinable()) thread_.join();
}

void ThreadManager::abandon_thread() {
    if (thread_.joinable()) thread_.detach();
}

void ThreadManager::request_stop() {
    const std::lock_guard lock(mutex);
    running = false;
    stop_requested = true;
}

bool ThreadManager::set_running() {
    const std::lock_guard lock(mutex);
    running = !stop_requested;
    return running;
}

bool ThreadManager::stopping() {
    const std::lock_guard lock(mutex);
    return stop_requested;
}

bool ThreadManager::on_own_thread() const {
    return t_current == this;
}

bool ThreadManager::wait_awhile(std::chrono::milliseconds time) {
    kiv::UniqueLock lock(mutex);
    condition.wait_until(lock, std::chrono::steady_clock::now() + time,
                         [this]() KIV_REQUIRES(mutex) { return wake; });
    wake = false;
    return running;
}

ThreadManager::ClearRunning::~ClearRunning() {
    const std::lock_guard lock(manager_.mutex);
    manager_.running = false;
}
