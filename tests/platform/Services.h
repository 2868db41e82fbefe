/// Services and connections, as the tests of the platform speak of them.
#ifndef KIV_TEST_SERVICES_H
#define KIV_TEST_SERVICES_H

#include <IOKit/IOKitLib.h>
#include <mach/mach.h>

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

/// A call whose result does not matter.
inline kern_return_t call(io_connect_t connect, uint32_t selector) {
    std::byte output[128];
    size_t size = sizeof output;
    return IOConnectCallStructMethod(connect, selector, nullptr, 0, output, &size);
}

#endif
