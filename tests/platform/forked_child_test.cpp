// What a forked child may do: nothing with its parent's connections, everything with its own.
#include <fcntl.h>

#include "platform/Child.h"
#include "platform/Services.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"

namespace {

/// kivsim in a process of its own, so that a child forked here has nothing of it.
class SeparateDriver {
  public:
    SeparateDriver() { EXPECT_NE(program_.read_line(), ""); }

  private:
    static std::string socket_in(const TemporaryDirectory& directory) {
        setenv("KIVSIM_SOCKET", (directory / "driver.sock").c_str(), 1);
        return directory / "driver.sock";
    }

    const TemporaryDirectory directory_;
    Program program_{{KIVSIM_PROGRAM, "--socket", socket_in(directory_)}};
};

/// A number of the first call on the parent's names that does not fail as it must; 0 when all do.
int first_success(io_connect_t connect, io_service_t service, IONotificationPortRef port) {
    mach_vm_address_t address = 0;
    io_connect_t opened = 0;
    const kern_return_t results[] = {
        call(connect, wire::kGetVersion),
        call_async(connect, IONotificationPortGetMachPort(port)),
        map(connect, address),
        IOConnectUnmapMemory64(connect, 0, mach_task_self(), 0),
        IOServiceOpen(service, mach_task_self(), kMedia, &opened),
        IOServiceClose(connect),
        IOServiceClose(connect),
    };
    for (int i = 0; i < static_cast<int>(std::size(results)); ++i) {
        if (results[i] != MACH_SEND_INVALID_DEST) return i + 1;
    }
    if (IOObjectRelease(connect) != KERN_INVALID_NAME || IOObjectRelease(service) != KERN_INVALID_NAME)
        return 20;
    IONotificationPortDestroy(port);
    return CFRunLoopRunInMode(kCFRunLoopDefaultMode, 20, true) == kCFRunLoopRunFinished ? 0 : 30;
}

TEST(PlatformForkedChild, HasOnlyErrorsFromItsParentsConnection) {
    const SeparateDriver driver;
    const io_service_t service = services().front();
    const io_connect_t connect = open_first();
    const IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
    CFRunLoopAddSource(CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                       kCFRunLoopDefaultMode);
    ASSERT_EQ(call_async(connect, IONotificationPortGetMachPort(port)), kIOReturnSuccess);
    ASSERT_EQ(select_bar(connect, 2), kIOReturnSuccess);
    mach_vm_address_t bar = 0;
    ASSERT_EQ(map(connect, bar), kIOReturnSuccess);

    // Calls and closes go on in other threads, so that forks meet every lock held.
    std::atomic<bool> done = false;
    std::atomic<int> wrong = 0;
    Threads callers(2, [&](uint64_t caller) {
        for (uint64_t value = 1; !done; ++value) {
            wire::PciAccess access{2, 0, caller * 8, 0, 0, caller << 32 | value};
            size_t size = sizeof access;
            wrong +=
                IOConnectCallStructMethod(connect, wire::kWritePci64, &access, size, nullptr, nullptr) != 0;
            wrong +=
                IOConnectCallStructMethod(connect, wire::kReadPci64, &access, size, &access, &size) != 0 ||
                access.offset != caller * 8 || access.data64 != (caller << 32 | value);
            wrong += IOServiceClose(open_first()) != kIOReturnSuccess;
        }
    });
    for (int round = 0; round < 30; ++round)
        EXPECT_EQ(in_child([&] { return first_success(connect, service, port); }), 0);
    done = true;
    callers.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(*reinterpret_cast<volatile uint32_t*>(bar + 12), 1u) << "the second caller's, still mapped";
    EXPECT_EQ(IOConnectUnmapMemory64(connect, 0, mach_task_self(), 0), kIOReturnSuccess);
    EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
}

TEST(PlatformForkedChild, OpensItsOwnAndKeepsClearOfTheStandardStreams) {
    const SeparateDriver driver;
    const io_connect_t inherited = open_first();
    EXPECT_EQ(in_child([&] {
                  for (int number = 0; number < 3; ++number)
                      close(number);
                  const io_connect_t own = open_first();
                  const IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
                  mach_vm_address_t address = 0;
                  if (own == inherited || call(own, wire::kGetVersion) != kIOReturnSuccess) return 1;
                  if (call_async(own, IONotificationPortGetMachPort(port)) != kIOReturnSuccess) return 2;
                  if (select_bar(own, 1) != kIOReturnSuccess || map(own, address) != kIOReturnSuccess)
                      return 3;
                  CFRunLoopAddSource(CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                                     kCFRunLoopDefaultMode);
                  for (int number = 0; number < 3; ++number) {
                      if (fcntl(number, F_GETFD) != -1) return 10 + number;
                  }
                  return IOServiceClose(own) == kIOReturnSuccess ? 0 : 4;
              }),
              0);
    EXPECT_EQ(call(inherited, wire::kGetVersion), kIOReturnSuccess);
}

}  // namespace
