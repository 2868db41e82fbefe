// What of the cards is told to Prometheus: only what is good at this moment, in the units of the names.
#include "metrics.h"

#include <gtest/gtest.h>

#include "records.h"
#include "support/Json.h"

namespace {

using namespace kivctl;
using std::chrono::seconds;

const Clock::time_point kFresh = Clock::now();

Reading good(Json value) {
    return {std::move(value), Stamp{kFresh, {}}, false};
}

/// Of a card that is 250 ns ahead of the host.
Snapshot of_one_card() {
    Snapshot snapshot{{}, {}, {}, std::vector<CardValues>(1)};
    snapshot.cards[0].parts = {
        good(ports_json({})),
        good({{"register_state", 3}, {"tai_ns", 1'037'000'000'250}, {"host_ns", 1'000'000'000'000}}),
        good(pci_link_json(16, 4)),
        good({{"tx", stream_json({})}, {"rx", stream_json({})}}),
        good({{"sensors", Json::array({sensor_json(0, {0, 58, 95, 100})})}, {"board_power", 63}}),
        good({{"state", "idle"}, {"phase", "idle"}}),
        good(locking_json(4)),
        good({{"utc_offset", 37}, {"utc_offset_valid", true}, {"grandmaster", nullptr}}),
        good({{"slots", {"a", "b"}}, {"next_boot_slot", 0}})};
    return snapshot;
}

/// What a series of the card has, empty when it is not there.
std::string value_of(const Snapshot& snapshot, const std::string& name) {
    const std::string text = metrics_text(snapshot, kFresh);
    const std::size_t at = text.find("\n" + name + "{card=\"0\"");
    if (at == std::string::npos) return "";
    const std::size_t begin = text.find("} ", at) + 2;
    return text.substr(begin, text.find('\n', begin) - begin);
}

}  // namespace

TEST(Metrics, DropWhatIsStaleOrWasNotReadInTime) {
    // The last member says whether the part is asked for with every sample.
    const std::tuple<Part, const char*, const char*, bool> rows[] = {
        {kPorts, "kiv_card_up", "1", true},
        {kPorts, "kiv_port_up", "0", true},
        {kPorts, "kiv_port_load_ratio", "0", true},
        {kClock, "kiv_ptp_state", "3", true},
        {kClock, "kiv_ptp_time_seconds", "1037.00000025", true},
        {kClock, "kiv_ptp_offset_seconds", "2.5e-07", true},
        {kPciLink, "kiv_pci_link_lanes", "16", true},
        {kStreams, "kiv_stream_resources", "0", true},
        {kStreams, "kiv_stream_register", "0", true},
        {kSensorsOf, "kiv_temperature_celsius", "58", true},
        {kSensorsOf, "kiv_board_power", "63", true},
        {kFlashState, "kiv_flash_busy", "0", false},
        {kLocking, "kiv_ptp_locking_status", "4", false},
        {kMaster, "kiv_ptp_utc_offset_seconds", "37", false},
        {kMaster, "kiv_ptp_offset_seconds", "2.5e-07", false},
        {kSlots, "kiv_flash_slot_info", "1", false}};
    for (const auto& [which, name, value, each_sample] : rows) {
        SCOPED_TRACE(name);
        Snapshot snapshot = of_one_card();
        EXPECT_EQ(value_of(snapshot, name), value);
        Reading& part = snapshot.cards[0].parts[which];
        const std::string none = name == std::string("kiv_card_up") ? "0" : "";
        part.read->steady -= seconds(1);
        EXPECT_EQ(value_of(snapshot, name), each_sample ? none : value) << "a second too old";
        part.stale = true;
        EXPECT_EQ(value_of(snapshot, name), none) << "stale";
    }
}

TEST(Metrics, TellNothingThatNobodyKnows) {
    Snapshot snapshot = of_one_card();
    EXPECT_EQ(value_of(snapshot, "kiv_ptp_grandmaster_info"), "") << "a master that names none";
    EXPECT_EQ(value_of(snapshot, "kiv_source_up"), "") << "a source that was not asked";
    snapshot.cards[0].driver.reason = "no answer for 2 s";
    EXPECT_EQ(value_of(snapshot, "kiv_source_up"), "0");
    snapshot.cards[0].parts[kMaster].value["utc_offset_valid"] = false;
    EXPECT_EQ(value_of(snapshot, "kiv_ptp_offset_seconds"), "37.00000025");
}
