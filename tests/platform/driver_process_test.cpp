#include <kivplatform/driver_process.h>
#include <sys/stat.h>

#include "platform/Services.h"
#include "support/Program.h"
#include "support/RunningSimulator.h"

namespace {

uid_t g_user = 0;  ///< 0: the real one.

TEST(PlatformDriverProcess, ThatEndsFailsItsConnectionsOnly) {
    auto earlier = std::make_unique<RunningSimulator>();
    const io_service_t service = services().front();
    const io_connect_t connect = open_first();
    ASSERT_EQ(call(connect, wire::kGetVersion), kIOReturnSuccess);
    earlier->stop();
    EXPECT_FALSE(kivplatform_driver_running());
    io_connect_t none = 77;
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), kMedia, &none), MACH_SEND_INVALID_DEST);

    // The next driver process has services of its own; the dead connection stays dead.
    const RunningSimulator later;
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), kMedia, &none), kIOReturnNoDevice);
    EXPECT_EQ(none, 77u);
    EXPECT_EQ(call(connect, wire::kGetVersion), MACH_SEND_INVALID_DEST);
    EXPECT_EQ(call(open_first(), wire::kGetVersion), kIOReturnSuccess);
    EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
}

TEST(PlatformDriverProcess, ThatIsKilledEndsEvenAStalledCall) {
    const TemporaryDirectory directory;
    write_file(directory / "cards.json",
               R"({"cards": [{"id": 1, "driver_faults": [{"selector": 16, "delay_ms": 60000}]}]})");
    setenv("KIVSIM_SOCKET", (directory / "driver.sock").c_str(), 1);
    Program driver({KIVSIM_PROGRAM, "--config", directory / "cards.json", "--trace", directory / "trace"});
    ASSERT_NE(driver.read_line(), "");
    const io_connect_t stalled = open_first();
    kern_return_t result = -1;
    std::thread caller([&] { result = call(stalled, wire::kGetPtpEpochTime); });
    EXPECT_TRUE(wait_until(
        [&] { return read_file(directory / "trace").find("\"selector\":16") != std::string::npos; }));
    driver.send_signal(SIGKILL);
    EXPECT_EQ(driver.wait().status, -SIGKILL);
    caller.join();
    EXPECT_EQ(result, MACH_SEND_INVALID_DEST);
    EXPECT_EQ(call(stalled, wire::kGetVersion), MACH_SEND_INVALID_DEST);
    EXPECT_EQ(IOServiceClose(stalled), kIOReturnSuccess);
    EXPECT_TRUE(services().empty());
}

TEST(PlatformDriverProcess, IsFoundWhereTheEnvironmentSays) {
    char path[KIVPLATFORM_SOCKET_PATH_SIZE];
    for (const size_t length : {1u, 107u, 108u}) {
        const std::string chosen(length, 'x');
        setenv("KIVSIM_SOCKET", chosen.c_str(), 1);
        EXPECT_EQ(kivplatform_driver_socket(path), length < 108) << length;
        EXPECT_EQ(path, length < 108 ? chosen : "");
    }
}

TEST(PlatformDriverProcess, IsNotLookedForInADirectoryThatOthersMayWrite) {
    unsetenv("KIVSIM_SOCKET");
    g_user = 3'000'000'000u + static_cast<uid_t>(getpid());  // Nobody.
    const std::string directory = "/tmp/kivsim-" + std::to_string(g_user);
    char path[KIVPLATFORM_SOCKET_PATH_SIZE];
    EXPECT_TRUE(kivplatform_driver_socket(path));
    EXPECT_EQ(path, directory + "/driver.sock");

    mkdir(directory.c_str(), 0700);
    EXPECT_FALSE(kivplatform_driver_socket(path)) << "of another user";
    EXPECT_EQ(path, std::string());
    const auto give_to = [&](uid_t user) { return chown(directory.c_str(), user, 0) == 0; };
    if (give_to(g_user)) {  // Not everybody may.
        EXPECT_TRUE(kivplatform_driver_socket(path));
        give_to(geteuid());
        chmod(directory.c_str(), 0750);
        give_to(g_user);
        EXPECT_FALSE(kivplatform_driver_socket(path)) << "of a group";
        give_to(geteuid());
    }
    rmdir(directory.c_str());
    g_user = 0;
}

}  // namespace

/// Who asks, as the platform sees it.
extern "C" __attribute__((visibility("default"))) uid_t getuid() noexcept {
    return g_user != 0 ? g_user : geteuid();
}
