#include "ThreadManager.h"

#include <chrono>

namespace {
thread_local const ThreadManager* t_current = nullptr;  ///< The manager whose thread this is.
}

ThreadManager::~ThreadManager() = default;

void ThreadManager::run_thread() {
    if (!set_running()) return;
    std::unique_lock lock(mutex);
    while (running) {
        condition.wait_for(lock, std::chrono::seconds(1), [this] { return wake; });
        wake = false;
    }
}

void ThreadManager::start_thread() {
    {
        const std::lock_guard lock(mutex);
        stop_requested = false;
    }
    thread_ = std::thread([this] {
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
    {
        const std::lock_guard lock(mutex);
        running = false;
        stop_requested = true;
    }
    notify_all();
    if (t_current != this && thread_.joinable()) thread_.join();
}

bool ThreadManager::set_running() {
    const std::lock_guard lock(mutex);
    running = !stop_requested;
    return running;
}
