#include "state.h"

#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include <kiv/LogManager.h>
#include "base/libraryThread.h"
#include "base/outcome.h"
#include "log/kivLogDispatch.h"

namespace kiv::api {

namespace {

/// How long the exit waits: for a scan or close of another thread, and for what waits for the exit itself;
/// and for callbacks and requests under way, of which a request alone may take 7 seconds.
constexpr std::chrono::seconds kPatience{1};
constexpr std::chrono::seconds kLongPatience{10};

}  // namespace

constinit std::atomic<bool> Process::claimed_{false};
constinit std::atomic<bool> Process::inherited_{false};

Process& Process::instance() {
    static Process& process = *new Process;
    return process;
}

Process::Process() {
    // The logging library's own statics are built before the handler is registered: they end after it has
    // run.
    log::LogManager::getInstance();
    const auto note_in_child = [] {
        if (!claimed_) return;
        inherited_ = true;
        log::drop_nothing_at_once();  // For kiv_log_print, which is refused there.
    };
    if (pthread_atfork(nullptr, nullptr, note_in_child) != 0) throw std::bad_alloc();
    std::atexit([] { instance().end(); });
}

bool Process::claim() noexcept {
    claimed_ = true;
    return !over();
}

std::shared_ptr<device::DeviceManager> Process::manager() {
    if (inherited() || (ended_ && !device::thread::PeriodicThreadPool::onWorkerThread())) return nullptr;
    return present_manager();
}

std::shared_ptr<device::DeviceManager> Process::present_manager() {
    const std::lock_guard lock(mutex_);
    return g_DeviceManager;
}

std::shared_ptr<device::DeviceManager> Process::exchange_manager(
    std::shared_ptr<device::DeviceManager> fresh) {
    const std::lock_guard lock(mutex_);
    return std::exchange(g_DeviceManager, std::move(fresh));
}

/// For the exit handler. False when the turn is the caller's own, or another thread's for too long.
bool Process::wait_for_turn() {
    UniqueLock lock(mutex_);
    turn_is_free_.notify_all();
    if (turn_ == std::this_thread::get_id()) return false;
    const auto free = [this]() KIV_REQUIRES(mutex_) { return turn_ == std::thread::id(); };
    return turn_is_free_.wait_until(lock, std::chrono::steady_clock::now() + kPatience, free);
}

/// The exit handler. What cannot be ended in time ends with the process: a thread that the exit itself runs
/// on, one that waits for a driver that hangs.
void Process::end() noexcept try {
    ended_ = true;
    if (!claimed_ || inherited() || !wait_for_turn()) return;
    const auto done = std::make_shared<Outcome<bool>>();
    const bool on_worker = device::thread::PeriodicThreadPool::onWorkerThread();
    start_library_thread([this, done] {
        done->of([&] {
            // A callback under way may still ask the manager.
            if (const auto ending = present_manager()) ending->stop();
            exchange_manager(nullptr);
            clients->release();
            return true;  // Else out of memory, say: the rest ends with the process.
        });
    }).detach();
    done->wait_until(std::chrono::steady_clock::now() + (on_worker ? kPatience : kLongPatience));
} catch (...) {
    // No thread to be had: as above.
}

Turn::Turn(Process& process) : process_(process) {
    if (process_.over()) return;
    const auto self = std::this_thread::get_id();
    UniqueLock lock(process_.mutex_);
    if (process_.turn_ == self) return;
    process_.turn_is_free_.wait(lock, [this]() KIV_REQUIRES(process_.mutex_) {
        return process_.turn_ == std::thread::id() || process_.ended_;
    });
    if (process_.ended_) return;
    process_.turn_ = self;
    granted_ = true;
}

Turn::~Turn() {
    if (!granted_) return;
    {
        const std::lock_guard lock(process_.mutex_);
        process_.turn_ = {};
    }
    process_.turn_is_free_.notify_all();
}

}  // namespace kiv::api

kiv::platform::Clients* kiv::platform::clients_of_process(bool to_connect) {
    api::Process& process = api::Process::instance();
    if (to_connect ? !process.claim() : process.over()) return nullptr;
    return process.clients.get();
}
