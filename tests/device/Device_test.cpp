// One card's polls and events, through the real driver client and the simulator.
#include <kiv/Device.h>
#include <kiv/SystemMonitorData.h>
#include "driver/DeviceEnumeratorMacOS.h"
#include "driver/DeviceFactoryMacOS.h"

#include "support/CapturedLog.h"
#include "support/DriverFault.h"
#include "support/LoopbackServer.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

namespace {

using namespace kiv::device;

constexpr uint64_t kLink0 = 1 << 6;
constexpr uint64_t kLink1 = 1 << 7;
constexpr uint64_t kPtp0 = 1 << 8;
constexpr uint64_t kPtp1 = 1 << 9;
constexpr uint64_t kPtp3 = 1 << 10;

/// A Device on the first of the virtual cards, if there is one; events arrive as texts.
class OneCard {
  public:
    explicit OneCard(const std::vector<kivsim::CardSettings>& settings = {kivsim::believable_card(6)},
                     uint16_t server_port = 1)
        : simulator(settings) {
        DeviceEnumeratorMacOS enumerator(clients);
        DeviceFactoryMacOS factory;
        auto cards = enumerator.enumerate();
        cards.resize(1);
        Device::AccessList accesses;
        for (const auto& at : cards[0].functions)
            accesses.push_back(factory.createDeviceAccess(
                enumerator.getDeviceAccessPtr(cards[0].id, at.function), at.function));
        device =
            std::make_unique<Device>(cards[0], std::move(accesses),
                                     factory.createRestApiClient("127.0.0.1:" + std::to_string(server_port)));
        device->addCallback(&OneCard::receive, this);
    }

    /// What the card's status register says from now on: function 1 writes it.
    void set_status(uint64_t status) {
        ASSERT_EQ(device->accesses().back()->writeRegister64(0, 0x140, status), 0);
    }

    Lines take() { return std::exchange(events_, {}); }

    RunningSimulator simulator;
    kiv::DriverClients clients;
    std::unique_ptr<Device> device;

  private:
    static void receive(uint8_t id, kiv_event_type_t type, const void* data, void* self) {
        std::string text = std::to_string(id) + ":";
        if (type == KIV_EVENT_LINK) {
            const auto& link = *static_cast<const kiv_event_link_t*>(data);
            for (const int value :
                 {link.port_0_changed, link.port_0_link, link.port_1_changed, link.port_1_link})
                text += std::to_string(value);
        } else if (type == KIV_EVENT_PTP) {
            text += "ptp" + std::to_string(*static_cast<const uint32_t*>(data));
        } else {
            for (const auto& [alarm, sensor] : static_cast<const kiv_event_hwmon_t*>(data)->entry)
                text += (alarm ? '!' : ' ') + std::to_string(sensor.input) + "/" +
                        std::to_string(sensor.max) + "/" + std::to_string(sensor.critical) + "/" +
                        std::to_string(sensor.reserved);
        }
        static_cast<OneCard*>(self)->events_.push_back(text);
    }

    Lines events_;
};

}  // namespace

TEST(DevicePoll, ReportsWhatChangedInTheStatusRegister) {
    OneCard card;
    const std::tuple<uint64_t, bool, bool, bool, Lines> steps[] = {
        {kLink0 | kLink1 | kPtp3, false, false, false, {}},                 // Nothing enabled: nothing seen.
        {kLink0 | kLink1 | kPtp3, true, true, true, {"6:ptp3", "6:1111"}},  // PTP before link.
        {kLink0 | kLink1 | kPtp3, true, true, false, {}},
        {kLink0 | kPtp3, true, true, true, {"6:0110"}},
        {kLink0 | kPtp0 | kPtp1 | kPtp3, true, true, true, {"6:ptp0"}},  // The lowest bit wins.
        {kLink0 | kPtp1 | kPtp3, true, true, true, {"6:ptp1"}},
        {kLink0, true, true, true, {"6:ptp0"}},  // No bit is state 0 here.
        {kLink1, false, true, false, {}},        // A disabled event keeps what it saw last ...
        {kLink1, true, true, true, {"6:1011"}},  // ... and reports when enabled again.
    };
    for (const auto& [status, link_enabled, ptp_enabled, notified, events] : steps) {
        card.set_status(status);
        link_enabled ? card.device->enableEvent(KIV_EVENT_LINK) : card.device->disableEvent(KIV_EVENT_LINK);
        ptp_enabled ? card.device->enableEvent(KIV_EVENT_PTP) : card.device->disableEvent(KIV_EVENT_PTP);
        EXPECT_EQ(card.device->poll_1sec(), notified) << std::hex << status;
        EXPECT_EQ(card.take(), events) << std::hex << status;
    }
}

TEST(DevicePoll, GoesOnWithoutCallbacksAndCallsEachEntryOnce) {
    OneCard card;
    card.device->enableEvent(KIV_EVENT_LINK);
    card.device->enableEvent(KIV_EVENT_PTP);
    card.device->removeCallback();
    card.set_status(kPtp1);
    EXPECT_FALSE(card.device->poll_1sec()) << "a PTP change that nobody hears of is no notification";
    card.set_status(kPtp1 | kLink0);
    EXPECT_TRUE(card.device->poll_1sec()) << "a link change always is";
    EXPECT_FALSE(card.device->poll_1sec()) << "both were remembered";

    static int calls = 0;
    const auto count = [](uint8_t, kiv_event_type_t, const void*, void*) { ++calls; };
    card.device->addCallback(count, nullptr);
    card.device->addCallback(count, nullptr);
    card.set_status(0);
    EXPECT_TRUE(card.device->poll_1sec());
    EXPECT_EQ(calls, 4) << "two events, each to both entries";
}

TEST(DevicePoll, WithoutAReadableRegisterReportsNothing) {
    kivsim::CardSettings only_function_0 = kivsim::believable_card(6);
    only_function_0.functions.pop_back();
    const std::tuple<const char*, std::vector<kivsim::CardSettings>, bool> rows[] = {
        {"no card", {}, true},
        {"no function 1", {only_function_0}, true},
        {"driver process gone", {kivsim::believable_card(6)}, false}};
    for (const auto& [what, cards, driver_stays] : rows) {
        OneCard card(cards);
        card.device->enableEvent(KIV_EVENT_LINK);
        if (!driver_stays) card.simulator.stop();
        EXPECT_FALSE(card.device->poll_1sec()) << what;
        EXPECT_TRUE(card.take().empty()) << what;
    }
}

TEST(DevicePoll, RaisesTheSensorAlarmAtTheMaximum) {
    const auto report = [](const std::string& data) {
        return LoopbackServer::http(200, "{\"data\":" + data + "}");
    };
    const auto sensors = [&](const std::string& first) {
        return report(R"([{"label":"FPGA FABRIC Digital Temperature #5",)" + first +
                      R"(},{"label":"QSFP2 Case Temperature","input":7,"max":8,"critical":5}])");
    };
    // A sensor that is not listed is 0 of 0, which is at the maximum: silence needs the whole list.
    const std::string unlisted = "!0/0/0/0!0/0/0/0!0/0/0/0!0/0/0/0!0/0/0/0";
    std::string quiet;  // Every sensor, each below its maximum.
    for (const auto& [label, sensor] : SystemMonitorData().labels)
        quiet += std::string(quiet.empty() ? "" : ",") + R"({"input":4,"max":5,"label":")" + label + "\"}";
    LoopbackServer server({report(R"({"interfaces":[]})"), sensors(R"("input":95,"max":95,"critical":90)"),
                           sensors(R"("input":94,"max":95)"), LoopbackServer::http(500, ""),
                           report("[" + quiet + "]"), report("[]"), report("{}")});
    OneCard card({}, server.port());
    ASSERT_EQ(card.device->rest()->open(), 0);
    CapturedLog log;
    EXPECT_FALSE(card.device->poll_60sec()) << "not enabled";
    EXPECT_EQ(server.requests().size(), 1u) << "and nothing asked";
    card.device->enableEvent(KIV_EVENT_HWMON);
    for (const char* const first : {"!95/95/90/0", " 94/95/0/0"}) {
        EXPECT_TRUE(card.device->poll_60sec());
        EXPECT_EQ(card.take(), Lines{"0:" + (first + unlisted) + " 7/8/5/0"});
    }
    EXPECT_TRUE(card.device->poll_60sec()) << "a failed request counts as notified";
    EXPECT_EQ(log.take(),
              (Lines{"HTTP Server error status=500, msg=http status 500", "Fail get_hwmon_info"}));
    EXPECT_FALSE(card.device->poll_60sec());
    EXPECT_TRUE(card.take().empty()) << "all is quiet";
    for (const char* document : {"empty", "unreadable"}) {
        EXPECT_TRUE(card.device->poll_60sec()) << document;
        EXPECT_EQ(card.take(), Lines{"0:!0/0/0/0" + unlisted + "!0/0/0/0"}) << document;
    }
}

TEST(DevicePoll, DoesNotHoldUpTheEventsWhileItAsksForTheSensors) {
    LoopbackServer server({LoopbackServer::http(200, R"({"data":{"interfaces":[]}})"),
                           {LoopbackServer::http(200, R"({"data":[]})").bytes, std::chrono::seconds(1)}});
    OneCard card({}, server.port());
    ASSERT_EQ(card.device->rest()->open(), 0);
    card.device->enableEvent(KIV_EVENT_HWMON);
    auto poll = std::async(std::launch::async, [&] { return card.device->poll_60sec(); });
    ASSERT_TRUE(wait_until([&] { return server.requests().size() == 2; }));
    card.device->disableEvent(KIV_EVENT_HWMON);
    EXPECT_EQ(poll.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_FALSE(poll.get()) << "an alarm that nobody wants any more";
    EXPECT_TRUE(card.take().empty());
}

TEST(Device, ReadsAllIdentityRegistersBeforeItWritesOne) {
    kivsim::CardSettings settings = kivsim::believable_card(6);
    for (const uint32_t nth : {1u, 3u, 6u, 10u, 15u})  // The first register, then the second, and so on.
        settings.driver_faults.push_back(fault(wire::kReadPci64).nth(nth).status(-1));
    OneCard card({settings});
    kiv_card_info_t info{};
    for (int attempt = 0; attempt < 5; ++attempt)
        EXPECT_EQ(card.device->get_card_info(info), KIV_ERR_FAILED) << attempt;
    EXPECT_EQ(info.reg_00, 0u);
    EXPECT_EQ(card.device->get_card_info(info), KIV_OK);
}

TEST(Device, WithAnUnreadableStatusRegisterFailsThoughTheLoadsAndTheTimeCouldBeRead) {
    kivsim::CardSettings settings = kivsim::believable_card(6);
    settings.driver_faults.push_back(fault(wire::kReadPci64).status(-1));  // Nothing else is read so.
    OneCard card({settings});
    const auto leaves_untouched = [&](auto query, auto record) {
        std::memset(&record, 0xA5, sizeof record);
        const auto before = record;
        return ((*card.device).*query)(record) == KIV_ERR_FAILED &&
               std::memcmp(&record, &before, sizeof record) == 0;
    };
    EXPECT_TRUE(leaves_untouched(&Device::get_net_status, kiv_net_status_t{}));
    EXPECT_TRUE(leaves_untouched(&Device::get_ptp_status, kiv_ptp_status_t{}));
}

TEST(Device, WithoutFunctionsOrServerFailsInsteadOfCrashing) {
    Device device({}, {}, nullptr);
    kiv_card_info_t info{};
    kiv_net_config_t net{};
    uint32_t a = 1, b = 2;
    EXPECT_EQ(device.get_card_info(info), KIV_ERR_FAILED);
    EXPECT_EQ(device.get_media_net_config(net), KIV_ERR_REST);
    EXPECT_EQ(device.get_tun_config(a, b), KIV_ERR_FAILED);
    EXPECT_EQ(device.selected_ptp_card(), KIV_ERR_FAILED);
    device.enableEvent(KIV_EVENT_HWMON);
    EXPECT_FALSE(device.poll_1sec());
    EXPECT_TRUE(device.poll_60sec());

    auto untold = kivsim::believable_card(1);  // Its driver knows no tunnel.
    untold.external_server = true;
    untold.tunnel_address = 0;
    EXPECT_EQ(OneCard({untold}).device->reconfig_net_work({}, {}), KIV_ERR_FAILED);
}

TEST(DeviceTimes, AreZeroWithoutADriverThatTellsThem) {
    auto second_only = kivsim::believable_card(1);
    second_only.functions = {{1, 23}};
    const std::pair<kivsim::CardSettings, kiv_result_t> kCases[] = {{second_only, KIV_ERR_FAILED},
                                                                    {kivsim::believable_card(1), 0xFFFFFFFF}};
    for (const auto& [settings, result] : kCases) {
        OneCard card({settings});
        DeviceEnumeratorMacOS(card.clients).enumerate();  // New clients: those of the card are gone.
        uint64_t epoch = 7, before = 7, after = 7;
        EXPECT_EQ(card.device->get_epoch_and_2point(epoch, before, after), result);
        EXPECT_TRUE(epoch == 0 && before == 0 && after == 0) << epoch << ' ' << before << ' ' << after;
    }
}
