#include "notification_port.h"

#include <mutex>
#include <unordered_map>

#include "run_loop.h"

struct IONotificationPort {
    mach_port_t name = MACH_PORT_NULL;
    CFRunLoopSourceRef source = new __CFRunLoopSource;
};

namespace {

struct Ports {
    std::mutex mutex;  ///< Guards all below.
    std::unordered_map<mach_port_t, IONotificationPortRef> by_name;
    mach_port_t next = 0x80000003;  ///< Far from the names of objects; never handed out again.
};

/// Never destroyed: a port may live as long as its process.
Ports& ports() {
    static Ports& instance = *new Ports;
    return instance;
}

}  // namespace

std::shared_ptr<kivplatform::Channels> kivplatform::channels_of(mach_port_t port_name) {
    const std::lock_guard lock(ports().mutex);
    const auto found = ports().by_name.find(port_name);
    return found == ports().by_name.end() ? nullptr : found->second->source->channels;
}

IONotificationPortRef IONotificationPortCreate(mach_port_t) {
    const std::lock_guard lock(ports().mutex);
    auto* const port = new IONotificationPort{ports().next++};
    ports().by_name.emplace(port->name, port);
    return port;
}

void IONotificationPortDestroy(IONotificationPortRef port) {
    if (port == nullptr) return;
    {
        const std::lock_guard lock(ports().mutex);
        ports().by_name.erase(port->name);
    }
    port->source->channels->invalidate();
    CFRelease(port->source);
    delete port;
}

mach_port_t IONotificationPortGetMachPort(IONotificationPortRef port) {
    return port == nullptr ? MACH_PORT_NULL : port->name;
}

CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) {
    return port == nullptr ? nullptr : port->source;
}
