// Loading, polling and releasing cards.
#include <DeviceEnumeratorMacOS.h>
#include <DeviceFactoryMacOS.h>
#include <DeviceManager.h>
#include <gtest/gtest.h>

#include <atomic>

#include "RunningSimulator.h"
#include "Waiting.h"

namespace {

using kiv::device::DeviceEnumeratorMacOS;
using kiv::device::DeviceFactoryMacOS;
using kiv::device::DeviceFactoryRegistry;
using kiv::device::DeviceManager;
using std::chrono::milliseconds;

constexpr unsigned kReadPci64 = 6;

class Manager : public testing::Test {
  protected:
    Manager() { registry_["macOS"] = std::make_unique<DeviceFactoryMacOS>(); }

    DeviceManager make() { return DeviceManager(registry_, std::make_unique<DeviceEnumeratorMacOS>()); }

    DeviceFactoryRegistry registry_;
};

}  // namespace

TEST_F(Manager, KeepsKnownCardsAddsNewOnesAndReleasesThoseThatAreGone) {
    auto simulator = std::make_unique<RunningSimulator>();
    DeviceManager manager = make();
    manager.loadDevices();
    const auto first = manager.getDeviceShared(1);
    ASSERT_TRUE(first);
    EXPECT_TRUE(manager.exists(2));
    manager.loadDevices();
    EXPECT_EQ(manager.getDevice(1), first.get()) << "an unchanged card keeps its Device";
    // Two cards, two polls each: the next task is the fifth.
    EXPECT_EQ(manager.scheduleDevicePoll(1, milliseconds(1000), &kiv::device::Device::poll_1sec), 5u);

    simulator = nullptr;
    simulator = std::make_unique<RunningSimulator>(
        std::vector{kivsim::believable_card(2), kivsim::believable_card(3)});
    manager.loadDevices();
    EXPECT_FALSE(manager.exists(1));
    EXPECT_TRUE(manager.exists(2));
    EXPECT_TRUE(manager.exists(3));
    EXPECT_EQ(manager.getDevice(1), nullptr);
    EXPECT_EQ(first.use_count(), 1) << "nothing else holds a released card";
}

TEST_F(Manager, PollsWhatItScheduledUntilItStops) {
    RunningSimulator simulator({kivsim::believable_card(1)});
    DeviceManager manager = make();
    manager.loadDevices();
    EXPECT_EQ(manager.scheduleDevicePoll(9, milliseconds(1), &kiv::device::Device::poll_1sec), 0u);
    const uint64_t task = manager.scheduleDevicePoll(1, milliseconds(1), &kiv::device::Device::poll_1sec);
    EXPECT_EQ(task, 3u) << "an unknown id takes no number";
    manager.start();
    EXPECT_TRUE(wait_until([&] { return simulator.calls(kReadPci64).size() >= 3; }));
    manager.cancelTask(task);
    manager.stop();
    EXPECT_FALSE(manager.exists(1));
    const std::size_t reads = simulator.calls(kReadPci64).size();
    manager.stop();
    EXPECT_EQ(simulator.calls(kReadPci64).size(), reads);
}

TEST_F(Manager, OfAnUnknownPlatformHasCardsThatCannotBeReached) {
    RunningSimulator simulator({kivsim::believable_card(1)});
    registry_.clear();
    DeviceManager manager = make();
    manager.loadDevices();
    ASSERT_TRUE(manager.exists(1));
    EXPECT_TRUE(manager.getDevice(1)->accesses().empty());
    kiv_card_info_t info{};
    EXPECT_EQ(manager.getDevice(1)->get_card_info(info), KIV_ERR_FAILED);
}
