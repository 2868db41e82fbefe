#include "state.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include <kiv/LogManager.h>

namespace kiv::api {

namespace {

/// How long the exit waits for a scan or close of another thread, which may wait for a driver that hangs.
constexpr std::chrono::seconds kPatience{1};

}  // namespace

Process& Process::instance() {
    static Process& process = *new Process;
    return process;
}

Process::Process() {
    // The logging library's own statics are built before the handler is registered: they end after it has
    // run.
    log::LogManager::getInstance();
    std::atexit([] { instance().end(); });
}

bool Process::inherited() const noexcept {
    const pid_t owner = owner_;
    return owner != 0 && owner != getpid();
}

bool Process::claim() noexcept {
    pid_t nobody = 0;
    owner_.compare_exchange_strong(nobody, getpid());
    return !over();
}

std::shared_ptr<device::DeviceManager> Process::manager() {
    if (inherited()) return nullptr;
    const std::lock_guard lock(mutex_);
    return g_DeviceManager;
}

std::shared_ptr<device::DeviceManager> Process::exchange_manager(
    std::shared_ptr<device::DeviceManager> fresh) {
    const std::lock_guard lock(mutex_);
    return std::exchange(g_DeviceManager, std::move(fresh));
}

/// The exit handler. On a thread of the library, or in the midst of a scan or close, it would wait for
/// itself: then everything ends with the process.
void Process::end() noexcept try {
    if (inherited()) return;
    {
        std::unique_lock lock(mutex_);
        ended_ = true;
        turn_is_free_.notify_all();
        if (turn_ == std::this_thread::get_id() || device::thread::PeriodicThreadPool::onWorkerThread())
            return;
        const auto free = [this] { return turn_ == std::thread::id(); };
        if (!turn_is_free_.wait_until(lock, std::chrono::steady_clock::now() + kPatience, free)) return;
    }
    // A callback under way may still ask the manager.
    if (const auto ending = manager()) ending->stop();
    exchange_manager(nullptr);
    clients->release();
} catch (...) {
    // Out of memory, say: the rest ends with the process.
}

Turn::Turn(Process& process) : process_(process) {
    if (process_.over()) return;
    const auto self = std::this_thread::get_id();
    std::unique_lock lock(process_.mutex_);
    if (process_.turn_ == self) return;
    process_.turn_is_free_.wait(lock,
                                [this] { return process_.turn_ == std::thread::id() || process_.ended_; });
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

kiv::platform::Clients* kiv::platform::clients_of_process() {
    api::Process& process = api::Process::instance();
    return process.claim() ? process.clients.get() : nullptr;
}
