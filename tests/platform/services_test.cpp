#include "platform/Services.h"
#include "support/RunningSimulator.h"

namespace {

TEST(PlatformServices, NoneIsSuccessWithoutAnIterator) {
    const TemporaryDirectory directory;
    const auto expect_none = [](const char* name) {
        io_iterator_t iterator = 77;
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceNameMatching(name), &iterator),
                  0);
        EXPECT_EQ(iterator, IO_OBJECT_NULL) << name;
    };
    setenv("KIVSIM_SOCKET", (directory / "nobody").c_str(), 1);
    expect_none(kCards);
    RunningSimulator simulator;
    expect_none("kivPCIServic");
    simulator.stop();
    expect_none(kCards);
    const RunningSimulator without_cards(std::vector<kivsim::CardSettings>{});
    expect_none(kCards);
}

// Leaks and double releases of the dictionary show under the address sanitizer.
TEST(PlatformServices, MatchingConsumesTheDictionaryAlsoOnFailure) {
    setenv("KIVSIM_SOCKET", std::string(108, 'x').c_str(), 1);
    io_iterator_t iterator = IO_OBJECT_NULL;
    EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, nullptr, &iterator), kIOReturnBadArgument);
    EXPECT_DEATH(IOServiceNameMatching(nullptr), "");

    for (io_iterator_t* result : {&iterator, static_cast<io_iterator_t*>(nullptr)}) {
        const CFMutableDictionaryRef matching = IOServiceNameMatching(kCards);
        EXPECT_EQ(CFRetain(matching), matching);
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, matching, result),
                  result != nullptr ? kIOReturnNotPermitted : kIOReturnBadArgument);
        CFRelease(matching);  // Ours; the other one is gone.
    }
}

TEST(PlatformServices, NamesCountReferencesAndAreOfOneKind) {
    const RunningSimulator simulator;
    io_iterator_t iterator = IO_OBJECT_NULL;
    ASSERT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceNameMatching(kCards), &iterator), 0);
    const io_service_t service = IOIteratorNext(iterator);
    ASSERT_NE(service, IO_OBJECT_NULL);
    io_connect_t connect = 77;
    for (const io_object_t no_service : {iterator, IO_OBJECT_NULL, io_object_t{0xFFFF}})
        EXPECT_EQ(IOServiceOpen(no_service, mach_task_self(), kMedia, &connect), kIOReturnBadArgument);
    EXPECT_EQ(connect, 77u);
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), kMedia, nullptr), kIOReturnBadArgument);
    EXPECT_EQ(IOIteratorNext(service), IO_OBJECT_NULL);
    EXPECT_EQ(IOServiceClose(service), kIOReturnBadArgument);

    // The service does not need its iterator; either goes with its only reference.
    EXPECT_EQ(IOObjectRelease(iterator), KERN_SUCCESS);
    EXPECT_EQ(IOIteratorNext(iterator), IO_OBJECT_NULL);
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), kMedia, &connect), kIOReturnSuccess);
    EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
    EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
    for (const io_object_t gone : {iterator, service, connect, IO_OBJECT_NULL})
        EXPECT_EQ(IOObjectRelease(gone), KERN_INVALID_NAME);
}

}  // namespace
