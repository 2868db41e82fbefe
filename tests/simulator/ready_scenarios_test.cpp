// The scenarios that are installed: each makes its trouble, as a program sees it through the C interface.
#include <iomanip>
#include <sstream>

#include "api/FoundCards.h"
#include "scenario/Timeline.h"
#include "support/Json.h"

namespace {

using std::chrono::milliseconds;

struct Ready {
    explicit Ready(const std::string& name)
        : scenario(kivsim::load_scenario(KIV_SCENARIOS + name + ".json")), cards(scenario.cards) {}
    void at(double time) { timeline.advance_to(time); }

    const kivsim::Scenario scenario;
    FoundCards cards;
    kivsim::Timeline timeline{scenario, cards.simulator->cards(), [](const std::string&) {}};
};

/// What a query of card 1 gives, as a text: its values, or the failure alone. Card 2 is not concerned.
template <typename Record, typename... Values>
std::string shown(kiv_result_t (*query)(uint8_t, Record*), const Values&... value_of) {
    Record record{};
    EXPECT_EQ(query(2, &record), KIV_OK);
    record = {};
    const kiv_result_t result = query(1, &record);
    if (result != KIV_OK) return kiv_result_name(result);
    std::ostringstream out;
    ((out << (out.tellp() == 0 ? "" : " ") << std::invoke(value_of, record)), ...);
    return out.str();
}

std::string links() {
    return shown(kiv_get_net_status, &kiv_net_status_t::link_up_0, &kiv_net_status_t::link_up_1);
}
std::string load() {
    return shown(kiv_get_net_status, [](const auto& s) { return s.load_a[0]; });
}
std::string temperature() {
    return shown(
        kiv_get_card_status, [](const auto& s) { return s.sensor[0].input; },
        &kiv_card_status_t::board_power);
}
std::string ptp() {
    return shown(kiv_get_ptp_status, &kiv_ptp_status_t::state,
                 [](const auto& s) { return s.is_master ? "valid" : "invalid"; });
}
std::string grandmaster() {
    return shown(kiv_get_ptp_status, &kiv_ptp_status_t::master_value,
                 [](const auto& s) { return s.clock_identity & 0xFFFFFF; });
}
std::string flash() {
    return shown(kiv_get_flash_config, &kiv_flash_config_t::next_boot_slot);
}
std::string information() {
    return shown(kiv_get_card_info, [](const auto&) { return "told"; });
}
std::string streams() {
    return shown(
        kiv_get_tx_stream_status, [](const auto& s) { return int{s.resource_0}; },
        [](const auto& s) { return int{s.resource_1}; }, [](const auto& s) { return int{s.resource_2}; });
}
std::string times() {
    uint64_t time = 0;
    std::ostringstream out;
    out << std::hex << kiv_get_epoch_and_2point(1, &time, &time, &time);
    return out.str();
}

TEST(ReadyScenarios, MakeTheirTroubleAndEndIt) {
    using Course = std::vector<std::pair<double, const char*>>;
    // clang-format off
    const std::tuple<std::string, std::string (*)(), Course> rows[] = {
        {"link-flaps", links, {{1, "1 1"}, {2, "0 1"}, {3, "1 1"}, {4.1, "0 1"}, {5, "1 1"}, {7, "0 0"}, {9, "1 1"}, {12, "0 1"}, {13, "1 1"}}},
        {"sensor-overheats", temperature, {{1, "58 63"}, {15, "73 63"}, {25, "88 72"}, {36, "103 80"}, {66, "58 63"}}},
        {"ptp-lost-and-found", ptp, {{4, "0 valid"}, {6, "1 invalid"}, {16, "0 valid"}}},
        {"grandmaster-changes", grandmaster, {{4, "37 1193046"}, {6, "36 6636321"}, {21, "37 1193046"}}},
        {"server-answers-503", flash, {{4, "0"}, {6, "KIV_ERR_REST"}, {10, "0"}}},
        {"server-answers-503", links, {{6, "1 1"}, {10, "1 1"}}},
        {"driver-calls-fail", links, {{4, "1 1"}, {6, "KIV_ERR_FAILED"}, {10, "1 1"}}},
        {"driver-calls-fail", times, {{6, "0"}, {16, "e00002d5"}, {20, "0"}}},
        {"garbled-answers", temperature, {{4, "58 63"}, {6, "KIV_ERR_REST"}, {10, "58 63"}}},
        {"garbled-answers", flash, {{4, "0"}, {6, "KIV_ERR_FAILED"}, {10, "0"}}},
        {"garbled-answers", ptp, {{4, "0 valid"}, {6, "KIV_ERR_REST"}, {10, "0 valid"}}},
        {"streams-run-out", streams, {{4, "4 8 16"}, {20, "34 68 136"}, {35, "64 128 255"}, {65, "4 8 16"}}},
        {"streams-run-out", load, {{4, "42.5"}, {35, "100"}, {65, "42.5"}}},
        {"card-pulled-and-returned", information, {{4, "told"}, {6, "KIV_ERR_FAILED"}, {8, "told"}, {11, "told"}}},
        {"card-pulled-and-returned", links, {{4, "1 1"}, {6, "KIV_ERR_FAILED"}, {9, "0 0"}, {10, "1 1"}}}};
    // clang-format on
    // Each scenario finds the cards as the one before has left them.
    const FoundCards cards(kivsim::default_cards());
    for (const auto& [name, look, course] : rows) {
        const kivsim::Scenario scenario = kivsim::load_scenario(KIV_SCENARIOS + name + ".json");
        kivsim::Timeline timeline(scenario, cards.simulator->cards(), [](const std::string&) {});
        for (const auto& [time, expected] : course) {
            timeline.advance_to(time);
            EXPECT_EQ(look(), expected) << name << " at " << time;
        }
    }
}

TEST(ReadyScenarios, AServerThatHangsMakesAScanOfItsCardTakeTooLong) {
    Ready ready("server-hangs");
    ready.at(16);
    EXPECT_EQ(flash(), "0") << "it hangs no more";
    Ready again("server-hangs");
    again.at(6);
    kiv_scan_each_t scan{};
    EXPECT_EQ(kiv_scan_each(nullptr, 300, &scan), KIV_OK);
    ASSERT_EQ(scan.count, 2u);
    EXPECT_EQ(scan.cards[0].result, KIV_ERR_BUSY);
    EXPECT_EQ(scan.cards[1].result, KIV_OK);
    again.cards.simulator.stop();  // Ends the wait of the scan's request.
}

TEST(ReadyScenarios, ADriverThatHangsHoldsTheCallsForTheirTime) {
    Ready ready("driver-hangs");
    ready.at(16);
    const Stopwatch watch;
    EXPECT_EQ(ptp() + " " + times(), "0 valid 0");
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(20)) << "it hangs no more";
    const std::pair<uint32_t, bool (*)()> rows[] = {
        {16, [] { return ask<kiv_get_ptp_status, kiv_ptp_status_t>(1) == KIV_OK; }},
        {17, [] { return times() == "0"; }}};
    for (const auto& row : rows) {
        Ready again("driver-hangs");
        again.at(6);
        auto call = std::async(std::launch::async, row.second);
        EXPECT_TRUE(wait_until([&] { return !again.cards.simulator.calls(row.first).empty(); }));
        EXPECT_EQ(flash(), "0") << "the server does not hang";
        EXPECT_EQ(call.wait_for(milliseconds(20)), std::future_status::timeout) << row.first;
        again.cards.simulator.stop();
        EXPECT_FALSE(call.get()) << row.first;
    }
}

TEST(ReadyScenarios, AFirmwareWriteFailsAndLeavesItsSlot) {
    const TemporaryDirectory directory;
    write_file(directory / "image", "bytes");
    Ready ready("firmware-write-fails-while-verifying");
    ready.cards.control("PATCH", 1, R"({"flash_ms": 200})");
    const auto slot = [] { return shown(kiv_get_flash_config, [](const auto& s) { return s.slot1_id[0]; }); };
    const auto write = [&] { return kiv_write_flash_image(1, (directory / "image").c_str()); };
    const auto status = [&] {
        return parsed(ready.cards.simulator.control("GET", "/settings").body).at("firmware").at("status");
    };
    const std::string before = slot();
    ready.at(1);
    EXPECT_EQ(write(), KIV_OK);
    EXPECT_TRUE(wait_until([&] { return status() == "failed"; }));
    EXPECT_EQ(slot(), before);
    EXPECT_EQ(write(), KIV_ERR_BUSY) << "the card tells it until somebody cancels";
    ready.cards.control("PATCH", 1, R"({"firmware": {"status": "idle"}})");
    EXPECT_EQ(write(), KIV_OK);
    EXPECT_TRUE(wait_until([&] { return slot() != before; })) << "only the next write fails";
}

TEST(ReadyScenarios, AreAllTestedHere) {
    const std::string here = read_file(KIV_READY_SCENARIOS_TEST);
    for (const auto& entry : std::filesystem::directory_iterator(KIV_SCENARIOS))
        EXPECT_NE(here.find('"' + entry.path().stem().string() + '"'), std::string::npos) << entry.path();
}

}  // namespace
