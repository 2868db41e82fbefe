#include "notification_port.h"

#include <kivos/per_process.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include "run_loop.h"

struct IONotificationPort {
    // Not by a default initialiser: there gcc 12 loses the memory when the source's own building throws.
    explicit IONotificationPort(mach_port_t new_name) : name(new_name), source(new __CFRunLoopSource) {}
    ~IONotificationPort() { CFRelease(source); }
    IONotificationPort(const IONotificationPort&) = delete;
    IONotificationPort& operator=(const IONotificationPort&) = delete;

    const mach_port_t name;
    const CFRunLoopSourceRef source;
    const kivos::Birthplace birthplace{};
};

namespace {

struct Ports {
    explicit Ports(const Ports* inherited) {
        if (inherited != nullptr) next = inherited->next.load();
    }

    std::mutex mutex;  ///< Guards all below.
    std::unordered_map<mach_port_t, IONotificationPortRef> by_name;
    /// Far from the names of objects; never handed out again. A forked child reads it without the lock.
    std::atomic<mach_port_t> next = 0x80000003;
};

Ports& ports() {
    return kivos::of_this_process<Ports>();
}

}  // namespace

std::shared_ptr<kivplatform::Channels> kivplatform::channels_of(mach_port_t port_name) {
    const std::lock_guard lock(ports().mutex);
    const auto found = ports().by_name.find(port_name);
    return found == ports().by_name.end() ? nullptr : found->second->source->channels;
}

IONotificationPortRef IONotificationPortCreate(mach_port_t) try {
    const std::lock_guard lock(ports().mutex);
    auto port = std::make_unique<IONotificationPort>(ports().next++);
    ports().by_name.emplace(port->name, port.get());
    return port.release();
} catch (const std::bad_alloc&) {
    return nullptr;
}

void IONotificationPortDestroy(IONotificationPortRef port) {
    if (port == nullptr || port->birthplace.is_elsewhere()) return;
    {
        const std::lock_guard lock(ports().mutex);
        ports().by_name.erase(port->name);
    }
    port->source->channels->invalidate();
    delete port;
}

mach_port_t IONotificationPortGetMachPort(IONotificationPortRef port) {
    return port == nullptr ? MACH_PORT_NULL : port->name;
}

CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) {
    return port == nullptr ? nullptr : port->source;
}
