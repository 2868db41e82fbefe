// Loading, polling and releasing cards.
#include <kiv/DeviceManager.h>
#include "driver/DeviceEnumeratorMacOS.h"
#include "driver/DeviceFactoryMacOS.h"

#include "support/DriverFault.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

namespace {

using kiv::device::DeviceEnumeratorMacOS;
using kiv::device::DeviceFactoryMacOS;
using kiv::device::DeviceFactoryRegistry;
using kiv::device::DeviceManager;
using std::chrono::milliseconds;

struct Scheduled {
    std::function<void()> task;
    milliseconds period;
};
std::vector<Scheduled> g_scheduled;

class Manager : public testing::Test {
  protected:
    Manager() {
        g_scheduled.clear();
        registry_["macOS"] = std::make_unique<DeviceFactoryMacOS>();
    }

    DeviceManager make() {
        return DeviceManager(registry_, std::make_unique<DeviceEnumeratorMacOS>(clients_));
    }

    kiv::DriverClients clients_;
    DeviceFactoryRegistry registry_;
};

}  // namespace

#ifdef KIV_SCHEDULE
// The linker leads what the manager registers through here: periods are seen, not waited for. KIV_SCHEDULE is
// the linker's name of Scheduler::schedulePeriodic, a member: its object comes first.
using Pool = std::shared_ptr<kiv::device::thread::PeriodicThreadPool>;
uint64_t real_schedule(kiv::device::thread::Scheduler& scheduler, std::function<void()> task,
                       milliseconds period, Pool pool) __asm__("__real_" KIV_SCHEDULE);
uint64_t noted_schedule(kiv::device::thread::Scheduler& scheduler, std::function<void()> task,
                        milliseconds period, Pool pool) __asm__("__wrap_" KIV_SCHEDULE);
uint64_t noted_schedule(kiv::device::thread::Scheduler& scheduler, std::function<void()> task,
                        milliseconds period, Pool pool) {
    g_scheduled.push_back({task, period});
    return real_schedule(scheduler, std::move(task), period, std::move(pool));
}
#endif

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
    EXPECT_TRUE(wait_until([&] { return simulator.calls(wire::kReadPci64).size() >= 3; }));
    manager.cancelTask(task);
    manager.stop();
    EXPECT_FALSE(manager.exists(1));
    const std::size_t reads = simulator.calls(wire::kReadPci64).size();
    manager.stop();
    EXPECT_EQ(simulator.calls(wire::kReadPci64).size(), reads);
}

TEST_F(Manager, HasTheStatusReadEverySecondAndTheSensorsEveryMinute) {
#ifndef KIV_SCHEDULE
    GTEST_SKIP() << "the linker of this system wraps no function: nobody sees the periods";
#endif
    RunningSimulator simulator({kivsim::believable_card(1)});
    DeviceManager manager = make();
    manager.loadDevices();
    ASSERT_TRUE(manager.exists(1));
    ASSERT_EQ(manager.getDevice(1)->rest()->open(), 0);
    manager.getDevice(1)->enableEvent(KIV_EVENT_HWMON);
    const auto sensor_requests = [&] {
        const auto all = simulator.requests();
        return std::count_if(all.begin(), all.end(),
                             [](const auto& request) { return request.path == "/api/v1.0/hps/hwmon/info"; });
    };
    std::string polls;
    for (const auto& [task, period] : g_scheduled) {
        const auto reads = simulator.calls(wire::kReadPci64).size();
        const auto requests = sensor_requests();
        task();
        if (simulator.calls(wire::kReadPci64).size() > reads) polls += "status ";
        if (sensor_requests() > requests) polls += "sensors ";
        polls += std::to_string(period.count()) + " ";
    }
    EXPECT_EQ(polls, "status 1000 sensors 60000 ");
}

TEST_F(Manager, OfAnUnknownPlatformHasCardsThatCannotBeReached) {
    RunningSimulator simulator({kivsim::believable_card(1)});
    registry_["macOS"] = nullptr;  // An entry without a factory is as none.
    DeviceManager empty = make();
    empty.loadDevices();
    ASSERT_TRUE(empty.exists(1));
    EXPECT_TRUE(empty.getDevice(1)->accesses().empty());
    registry_.clear();
    DeviceManager manager = make();
    manager.loadDevices();
    ASSERT_TRUE(manager.exists(1));
    EXPECT_TRUE(manager.getDevice(1)->accesses().empty());
    kiv_card_info_t info{};
    EXPECT_EQ(manager.getDevice(1)->get_card_info(info), KIV_ERR_FAILED);
}
