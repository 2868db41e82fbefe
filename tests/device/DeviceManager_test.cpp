// Loading, polling and releasing cards.
#include <kiv/DeviceManager.h>
#include "driver/DeviceEnumeratorMacOS.h"
#include "driver/DeviceFactoryMacOS.h"

#include "support/DriverFault.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

namespace {

using namespace kiv::device;
using std::chrono::milliseconds;

class Manager : public testing::Test {
  protected:
    Manager() { registry_["macOS"] = std::make_unique<DeviceFactoryMacOS>(); }

    kiv::DriverClients clients_;
    DeviceFactoryRegistry registry_;
    DeviceManager manager_{registry_, std::make_unique<DeviceEnumeratorMacOS>(clients_)};
};

}  // namespace

TEST_F(Manager, KeepsKnownCardsAddsNewOnesAndReleasesThoseThatAreGone) {
    auto simulator = std::make_unique<RunningSimulator>();
    manager_.loadDevices();
    const auto first = manager_.getDeviceShared(1);
    ASSERT_TRUE(first);
    EXPECT_TRUE(manager_.exists(2));
    manager_.loadDevices();
    EXPECT_EQ(manager_.getDevice(1), first.get()) << "an unchanged card keeps its Device";
    // Two cards, two polls each: the next task is the fifth.
    EXPECT_EQ(manager_.scheduleDevicePoll(1, milliseconds(1000), &Device::poll_1sec), 5u);

    simulator = nullptr;
    simulator = std::make_unique<RunningSimulator>(
        std::vector{kivsim::believable_card(2), kivsim::believable_card(3)});
    manager_.loadDevices();
    EXPECT_FALSE(manager_.exists(1));
    EXPECT_TRUE(manager_.exists(2) && manager_.exists(3));
    EXPECT_EQ(manager_.getDevice(1), nullptr);
    EXPECT_EQ(first.use_count(), 1) << "nothing else holds a released card";
}

TEST_F(Manager, PollsWhatItScheduledUntilItStops) {
    RunningSimulator simulator({kivsim::believable_card(1)});
    manager_.loadDevices();
    EXPECT_EQ(manager_.scheduleDevicePoll(9, milliseconds(1), &Device::poll_1sec), 0u);
    const uint64_t task = manager_.scheduleDevicePoll(1, milliseconds(1), &Device::poll_1sec);
    EXPECT_EQ(task, 3u) << "an unknown id takes no number";
    manager_.start();
    EXPECT_TRUE(wait_until([&] { return simulator.calls(wire::kReadPci64).size() >= 3; }));
    manager_.cancelTask(task);
    manager_.stop();
    EXPECT_FALSE(manager_.exists(1));
    const std::size_t reads = simulator.calls(wire::kReadPci64).size();
    manager_.stop();
    EXPECT_EQ(simulator.calls(wire::kReadPci64).size(), reads);
}

TEST_F(Manager, OfAnUnknownPlatformHasCardsThatCannotBeReached) {
    RunningSimulator simulator({kivsim::believable_card(1)});
    registry_["macOS"] = nullptr;
    for (const char* const registered : {"without a factory", "not at all"}) {
        SCOPED_TRACE(registered);
        manager_.loadDevices();
        ASSERT_TRUE(manager_.exists(1));
        EXPECT_TRUE(manager_.getDevice(1)->accesses().empty());
        kiv_card_info_t info{};
        EXPECT_EQ(manager_.getDevice(1)->get_card_info(info), KIV_ERR_FAILED);
        manager_.stop();
        registry_.clear();
    }
}
