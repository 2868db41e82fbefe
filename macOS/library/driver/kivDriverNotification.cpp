// The notification thread: the driver's interrupt messages, from its run loop to the owner's callback.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <pthread/qos.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include <kiv/kivDriverClient.h>
#include "driver/driverLog.h"
#include "driver/wire.h"

namespace {

constexpr CFTimeInterval kForever = 1e10;  ///< Seconds.
constexpr std::chrono::milliseconds kPause{100};
constexpr std::chrono::milliseconds kBetweenStops{1};

}  // namespace

/// A thread that could not register has returned: it gets a successor.
void kivDriverClient::start_notifications() {
    {
        const std::lock_guard lock(mutex);
        if (notifying_) return;
    }
    stop_notifications();
    {
        const std::lock_guard lock(mutex);
        notifying_ = true;
    }
    try {
        start_thread();
    } catch (...) {
        end_of_thread();  // No thread to be had: no messages.
    }
}

/// Returns when the thread has ended, if there was one.
void kivDriverClient::stop_notifications() {
    request_stop();
    {
        kiv::UniqueLock lock(mutex);
        while (notifying_) {
            // A stop that comes just before the loop runs is lost.
            if (run_loop_ != nullptr) CFRunLoopStop(run_loop_);
            condition.wait_until(lock, std::chrono::steady_clock::now() + kBetweenStops);
        }
    }
    join_thread();
    const std::lock_guard lock(mutex);
    if (run_loop_ != nullptr) CFRelease(std::exchange(run_loop_, nullptr));
}

void kivDriverClient::end_of_thread() {
    const std::lock_guard lock(mutex);
    notifying_ = false;
    condition.notify_all();
}

void kivDriverClient::run_thread() {
    struct AtEnd {
        kivDriverClient& client;
        ~AtEnd() { client.end_of_thread(); }
    };
    const AtEnd at_end{*this};
    const ClearRunning clear_running(*this);
    pthread_set_qos_class_self_np(QOS_CLASS_USER_INTERACTIVE, 0);
    const CFRunLoopRef run_loop = CFRunLoopGetCurrent();
    CFRetain(run_loop);
    {
        const std::lock_guard lock(mutex);
        run_loop_ = run_loop;
    }
    if (register_callback(run_loop) && set_running()) {
        while (!stopping()) {
            // Without a source the loop would return at once, again and again.
            if (CFRunLoopRunInMode(kCFRunLoopDefaultMode, kForever, false) == kCFRunLoopRunFinished)
                wait_awhile(kPause);
        }
    }
}

/// Has the driver's messages delivered by this run loop. The port is left to the process: the driver may hold
/// its name.
bool kivDriverClient::register_callback(CFRunLoopRef run_loop) {
    const IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
    if (port == nullptr) {
        driver_log(__LINE__, "Failed to create notification port for application.\n");
        return false;
    }
    const mach_port_t wake_port = IONotificationPortGetMachPort(port);
    {
        const std::lock_guard lock(mutex);
        notify_port_ = wake_port;
    }
    if (wake_port == MACH_PORT_NULL) {
        driver_log(__LINE__, "Failed to get mach notification port for application.\n");
        return false;
    }
    const CFRunLoopSourceRef source = IONotificationPortGetRunLoopSource(port);
    if (source == nullptr) {
        driver_log(__LINE__, "Failed to get run loop for application.\n");
        return false;
    }
    CFRunLoopAddSource(run_loop, source, kCFRunLoopDefaultMode);

    uint64_t reference[kIOAsyncCalloutCount] = {};
    reference[kIOAsyncCalloutFuncIndex] = reinterpret_cast<uint64_t>(&kivDriverClient::callbak_dext);
    reference[kIOAsyncCalloutRefconIndex] = reinterpret_cast<uint64_t>(this);
    if (IOConnectCallAsyncStructMethod(connect_, kiv::wire::kRegisterInterruptAsyncCallback, wake_port,
                                       reference, kIOAsyncCalloutCount, nullptr, 0, nullptr,
                                       nullptr) != kIOReturnSuccess) {
        driver_log(__LINE__, "Failed ExternalMethodType_RegisterInterruptAsyncCallback\n");
        return false;
    }
    return true;
}

/// Called by the run loop, on the notification thread.
// The name stays: docs/oddities.md.
void kivDriverClient::callbak_dext(void* refcon, int32_t, void** args, uint32_t numArgs) {
    if (refcon != nullptr) static_cast<kivDriverClient*>(refcon)->notify(args, numArgs);
}

/// A single argument travels in the place of the array's address. Only 3 to 16 come in an array: with another
/// count `args` is something else.
void kivDriverClient::notify(void** args, uint32_t numArgs) noexcept try {
    if (numArgs == 0 || numArgs == 2 || numArgs > std::size(InterruptEvent{}.word)) return;
    if (numArgs > 1 && args == nullptr) return;
    decltype(callback_) callback;  // Lives on when it replaces itself.
    const std::lock_guard lock(callback_mutex_);
    callback = callback_;
    if (!callback) return;
    InterruptEvent event{};
    event.count = numArgs;
    if (numArgs == 1) {
        event.word[0] = reinterpret_cast<uint64_t>(args);
    } else {
        std::transform(args, args + numArgs, event.word,
                       [](void* argument) { return reinterpret_cast<uint64_t>(argument); });
    }
    (*callback)(event);
} catch (...) {
    // The owner's business: the next message is delivered all the same.
}

void kivDriverClient::set_callback(std::function<void(const InterruptEvent&)> callback) {
    if (inherited()) return;
    auto fresh = callback
                     ? std::make_shared<const std::function<void(const InterruptEvent&)>>(std::move(callback))
                     : nullptr;
    const std::lock_guard lock(callback_mutex_);
    callback_.swap(fresh);
}
