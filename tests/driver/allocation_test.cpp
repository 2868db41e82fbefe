// Whichever allocation fails, no connection, descriptor or memory is lost, and nothing ends the process.
#include <new>

#include "driver/Clients.h"
#include "platform/Services.h"
#include "support/FailingAllocations.h"
#include "support/ThisProcess.h"

namespace {

/// Runs `body` with its first, second... allocation failing, as many as it makes, and `check` after each run.
template <typename Body, typename Check>
void fail_each_allocation(Body body, Check check) {
    for (long nth = 1;; ++nth) {
        ASSERT_LT(nth, 1000);
        fail_allocation(nth);
        try {
            body();
        } catch (const std::bad_alloc&) {
            // The caller's to hear.
        }
        const bool failed = fail_allocation(0) == 0;
        SCOPED_TRACE("allocation " + std::to_string(nth));
        check();
        EXPECT_TRUE(failed || nth > 3);
        if (!failed || testing::Test::HasFailure()) return;
    }
}

TEST(DriverOutOfMemory, LosesNoConnectionThatAnEnumerationHasOpened) {
    const RunningSimulator simulator;
    clients();
    const std::ptrdiff_t before = open_descriptors();
    std::size_t found = 0;
    fail_each_allocation([&] { found = clients().size(); },
                         [&] {
                             EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
                             EXPECT_TRUE(wait_until([&] { return simulator.open_connections() == 0; }));
                         });
    EXPECT_EQ(found, 4u);
}

TEST(DriverOutOfMemory, LosesNoDescriptorOrMappingOfAPlatformCall) {
    const RunningSimulator simulator;
    const int mapped = shared_mappings();
    IOServiceClose(open_first());
    const std::ptrdiff_t before = open_descriptors();
    kern_return_t status = -1;
    fail_each_allocation(
        [&] {
            const io_connect_t connect = open_first();
            mach_vm_address_t address = 0;
            select_bar(connect, 1);
            status = map(connect, address);
            const IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
            status |= call_async(connect, IONotificationPortGetMachPort(port));
            IOServiceClose(connect);
            IONotificationPortDestroy(port);
        },
        [&] {
            EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
            EXPECT_EQ(shared_mappings(), mapped);
        });
    EXPECT_EQ(status, kIOReturnSuccess);
}

TEST(DriverOutOfMemory, LeavesNoHalfOfABuffer) {
    const RunningSimulator simulator;
    const int mapped = shared_mappings();
    const auto client = first_client();
    int32_t status = -1;
    fail_each_allocation(
        [&] {
            status = client->allocate_buffer(3, 4096, 3);
            client->free_buffer();
        },
        [&] {
            EXPECT_EQ(shared_mappings(), mapped);
            EXPECT_EQ(simulator.calls(wire::kIoMalloc).size(), simulator.calls(wire::kIoFree).size());
        });
    EXPECT_EQ(status, 0);
}

TEST(DriverOutOfMemory, DoesNotKeepAClientFromEnding) {
    const RunningSimulator simulator;
    const int mapped = shared_mappings();
    auto list = clients();
    ASSERT_EQ(list.at(0)->open(true), 0);
    ASSERT_EQ(list.at(1)->allocate_buffer(3, 4096, 1), 0);
    const io_connect_t connect = open_first();
    fail_allocation(1);
    list.clear();
    const kern_return_t closed = IOServiceClose(connect);
    EXPECT_EQ(fail_allocation(0), 1) << "none was made";
    EXPECT_EQ(closed, kIOReturnSuccess);
    EXPECT_EQ(shared_mappings(), mapped);
}

}  // namespace
