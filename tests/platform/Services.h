/// Services and connections, as the tests of the platform speak of them.
#ifndef KIV_TEST_SERVICES_H
#define KIV_TEST_SERVICES_H

#include <IOKit/IOKitLib.h>
#include <mach/mach.h>

#include "support/DriverFault.h"
#include "support/Test.h"

inline constexpr const char* kCards = "kivPCIService";

/// Connection type of a card's PCI function 0.
inline constexpr uint32_t kMedia = 22;

/// All services of that name, in order, each with one reference of the caller's.
inline std::vector<io_service_t> services(const char* name = kCards) {
    std::vector<io_service_t> found;
    io_iterator_t iterator = IO_OBJECT_NULL;
    if (IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceNameMatching(name), &iterator) != 0)
        return found;
    while (const io_service_t service = IOIteratorNext(iterator))
        found.push_back(service);
    IOObjectRelease(iterator);
    return found;
}

/// An open connection to the first service, PCI function 0 of the first card; 0 when that fails.
inline io_connect_t open_first() {
    const std::vector<io_service_t> all = services();
    io_connect_t connect = IO_OBJECT_NULL;
    if (!all.empty()) IOServiceOpen(all.front(), mach_task_self(), kMedia, &connect);
    for (const io_service_t service : all)
        IOObjectRelease(service);
    return connect;
}

/// Bytes as the driver's trace writes them.
template <typename Bytes>
std::string hex(const Bytes& bytes, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<uint8_t>(bytes[i])));
        text += digits;
    }
    return text;
}

/// A call whose result does not matter.
inline kern_return_t call(io_connect_t connect, uint32_t selector) {
    std::byte output[128];
    size_t size = sizeof output;
    return IOConnectCallStructMethod(connect, selector, nullptr, 0, output, &size);
}

/// Has the next map() take this BAR.
inline kern_return_t select_bar(io_connect_t connect, uint32_t bar) {
    const wire::MemorySelection selection{1, {}, 1, 0, 0, bar};
    return IOConnectCallStructMethod(connect, wire::kSelectMemory, &selection, sizeof selection, nullptr,
                                     nullptr);
}

inline kern_return_t map(io_connect_t connect, mach_vm_address_t& address) {
    mach_vm_size_t size = 0;
    return IOConnectMapMemory64(connect, 0, mach_task_self(), &address, &size, kIOMapAnywhere);
}

/// Registers for messages, of which nobody hears.
inline kern_return_t call_async(io_connect_t connect, mach_port_t port) {
    uint64_t reference[3] = {};
    return IOConnectCallAsyncStructMethod(connect, wire::kRegisterInterruptAsyncCallback, port, reference, 3,
                                          nullptr, 0, nullptr, nullptr);
}

#endif
