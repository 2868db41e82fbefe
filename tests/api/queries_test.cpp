// The calls for one card: what they check first, what queries write, and what a failure leaves.

#include "api/FoundCards.h"

namespace {

uint64_t tai_now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch() + std::chrono::seconds(37);
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

void ask_back(uint8_t id, kiv_event_type_t, const void*, void*) {
    ask<kiv_get_net_status, kiv_net_status_t>(id);
}
const kiv_net_config_t kNet{};
const kiv_ptp_config_t kPtp{};

/// An entry point with complete pointers, or with the one in question null.
using Call = kiv_result_t (*)(uint8_t id, bool null);
// clang-format off
const struct {
    const char* name;
    Call call;
    kiv_result_t null_result = KIV_OK;
} kEntryPoints[] = {
    {"get_card_info", ask<kiv_get_card_info, kiv_card_info_t>},
    {"get_card_status", ask<kiv_get_card_status, kiv_card_status_t>},
    {"get_media_net_config", ask<kiv_get_media_net_config, kiv_net_config_t>},
    {"get_ptp_net_config", ask<kiv_get_ptp_net_config, kiv_net_config_t>},
    {"get_net_status", ask<kiv_get_net_status, kiv_net_status_t>},
    {"get_ptp_config", ask<kiv_get_ptp_config, kiv_ptp_config_t>},
    {"get_ptp_status", ask<kiv_get_ptp_status, kiv_ptp_status_t>},
    {"get_tx_stream_status", ask<kiv_get_tx_stream_status, kiv_tx_stream_status_t>},
    {"get_rx_stream_status", ask<kiv_get_rx_stream_status, kiv_rx_stream_status_t>},
    {"get_flash_write_status", ask<kiv_get_flash_write_status, kiv_flash_status_t>},
    {"get_flash_config", ask<kiv_get_flash_config, kiv_flash_config_t>},
    {"epoch: first", [](uint8_t id, bool null) { uint64_t t = 0; return kiv_get_epoch_and_2point(id, null ? nullptr : &t, &t, &t); }},
    {"epoch: last", [](uint8_t id, bool null) { uint64_t t = 0; return kiv_get_epoch_and_2point(id, &t, &t, null ? nullptr : &t); }},
    {"unregister_callback_func", [](uint8_t id, bool) { return kiv_unregister_callback_func(id); }},
    {"disable_event", [](uint8_t id, bool) { return kiv_disable_event(id, KIV_EVENT_LINK); }},
    {"enable_event", [](uint8_t id, bool) { return kiv_enable_event(id, KIV_EVENT_LINK); }},
    {"register_callback_func", [](uint8_t id, bool null) { return kiv_register_callback_func(id, null ? nullptr : ask_back, nullptr); }, KIV_ERR_NULL_ARGUMENT},
    {"set_ptp_config: net", [](uint8_t id, bool null) { return kiv_set_ptp_config(id, null ? nullptr : &kNet, &kPtp); }, KIV_ERR_NULL_ARGUMENT},
    {"set_ptp_config: ptp", [](uint8_t id, bool null) { return kiv_set_ptp_config(id, &kNet, null ? nullptr : &kPtp); }, KIV_ERR_NULL_ARGUMENT},
    {"select_flash_slot", ask<kiv_select_flash_slot, kiv_flash_slot_t>, KIV_ERR_NULL_ARGUMENT},
    {"write_flash_image", [](uint8_t id, bool null) { return kiv_write_flash_image(id, null ? nullptr : "/none"); }, KIV_ERR_NULL_ARGUMENT},
};
// clang-format on

void expect_all(kiv_result_t result, uint8_t id) {
    for (const auto& entry : kEntryPoints)
        EXPECT_TRUE(entry.call(id, true) == result && entry.call(id, false) == result) << entry.name;
}

/// What a query of card 1 gives, as a text: its values, or the failure alone.
std::string shown(kiv_result_t result, const std::vector<uint64_t>& values) {
    std::ostringstream out;
    out << std::hex << result;
    for (std::size_t i = 0; result == KIV_OK && i < values.size(); ++i)
        out << ' ' << values[i];
    return out.str();
}
std::string ptp() {
    const uint64_t before = tai_now();
    kiv_ptp_status_t s{77, 0, 0, 0, 0};
    const kiv_result_t result = kiv_get_ptp_status(1, &s);
    EXPECT_TRUE(before <= s.tai_time && s.tai_time <= tai_now()) << s.tai_time;
    return shown(result, {s.state, s.is_master, s.master_value, s.clock_identity});
}
std::string flash() {
    kiv_flash_config_t s{};
    const kiv_result_t result = kiv_get_flash_config(1, &s);
    return shown(result, {s.slot0_id[0], s.slot0_id[1], s.slot1_id[0], s.slot1_id[1], s.next_boot_slot});
}
/// The other card is not concerned.
template <auto query, typename Record>
std::string result() {
    EXPECT_EQ((ask<query, Record>(2)), KIV_OK);
    return shown(ask<query, Record>(1), {});
}

}  // namespace

TEST(EntryPoints, CheckManagerThenIdThenPointersAndOnlyThenAskTheCard) {
    expect_all(KIV_ERR_NOT_OPENED, 1);
    {
        FoundCards cards;
        const auto calls = cards.driver_calls("card 1 function 0");
        expect_all(KIV_ERR_NO_DEVICE, 2);
        EXPECT_TRUE(cards.log.take().empty());
        for (const auto& [name, call, result] : kEntryPoints)
            EXPECT_EQ(call(1, true), result) << name;
        EXPECT_EQ(cards.log.take(), Lines(5, "Argument is NULL"));
        EXPECT_EQ(cards.driver_calls("card 1 function 0"), calls);
        EXPECT_EQ(cards.take_requests(), Lines{"GET firmware/status"}) << "before an image, not its path";
    }
    expect_all(KIV_ERR_NOT_OPENED, 1);
}

/// For the race detector, and against deadlocks.
TEST(EntryPoints, MayBeCalledByManyThreadsWhileTheCardsAreWatched) {
    FoundCards cards(kivsim::default_cards());
    const Stopwatch watch;
    const auto going = [&] { return watch.elapsed() < std::chrono::milliseconds(1500); };
    std::atomic<int> failures = 0;
    Threads threads(8, [&](std::size_t first) {
        for (std::size_t i = first; going(); ++i) {
            const auto& entry = kEntryPoints[i % (std::size(kEntryPoints) - 1)];  // No image to write.
            failures += entry.call(i / 4 % 2 == 0 ? 1 : 2, false) != KIV_OK;
        }
    });
    for (unsigned i = 0; going(); ++i)
        cards.control("PATCH", 1 + i % 2,
                      i % 4 < 2 ? R"({"links": [true, false]})" : R"({"links": [false, true]})");
    threads.join();
    EXPECT_EQ(failures, 0);
}

TEST(Queries, WriteJustTheFieldsThatTheyHave) {
    auto card = kivsim::believable_card(1);
    card.interfaces = {{"lo", "127.0.0.1", "255.0.0.0", "00:00:00:00:00:00"},
                       {"maceth0", "10.1.2.3", "255.255.240.0", "02:aa:bb:cc:dd:ee:ff:longer"}};
    FoundCards cards({card});
    cards.control("PATCH", 1, R"({
        "links": [false, true], "pci_link": {"0": [8, 3], "1": [1, 2]}, "resources": {"tx": [260, 8, 65535], "rx": [1, 2, 3]},
        "hwmon": [{"label": "QSFP2 Case Temperature", "input": 7, "max": 8, "critical": 9},
                  {"label": "Board Power", "input": 63}],
        "registers": {"1": {"0x21430": 0, "0x21460": 1, "0x214A0": 0, "0x31830": 8, "0x31860": 1,
                            "0x318E0": "0xFFFFFFFF", "0x20004": "0x04000110", "0x20404": "0x1AB",
                            "0x20804": "0x1CD", "0x30004": "0x02000120", "0x30404": 17, "0x30804": 34}}})");
    expect_record(kiv_get_card_info, KIV_OK, [](kiv_card_info_t& info) {
        const uint64_t words[] = {0x4B49562D32313130, 0x0002000000010000, 0x5354323131300001, 0x20260001};
        std::memcpy(&info, words, sizeof words);
        info.reserved = 0;
        std::memcpy(info.port[0].mac_address, "02:aa:bb:cc:dd:ee", 18);
        info.port[0].link_speed_gbps = info.port[1].link_speed_gbps = 100;
    });
    for (const auto query : {kiv_get_media_net_config, kiv_get_ptp_net_config}) {
        expect_record(query, KIV_OK, [](kiv_net_config_t& net) {
            net.port_0.ip_address_0 = 0x0A010203;
            net.port_0.prefix_length_0 = 20;
        });
    }
    expect_record(kiv_get_card_status, KIV_OK, [](kiv_card_status_t& status) {
        for (kiv_sensor_t& sensor : status.sensor)
            sensor = {sensor.reserved, 0, 0, 0};
        status.sensor[6] = {status.sensor[6].reserved, 7, 8, 9};
        status.board_power = 63;
        status.pci_link_a = 3;
        status.pci_link_b = 8;
    });
    expect_record(kiv_get_net_status, KIV_OK, [](kiv_net_status_t& status) {
        const volatile double zero = 0;
        status.link_up_1 = 1;
        status.load_a[0] = 1 / zero;
        status.load_b[0] = zero / zero;
        status.load_a[1] = 25;
        status.load_b[1] = 0xFFFFFFFF * 25.0;
    });
    expect_record(kiv_get_tx_stream_status, KIV_OK, [](auto& s) { s = {0x10, 4, 0, 1, 0xAB, 8, 0xCD, 255}; });
    expect_record(kiv_get_rx_stream_status, KIV_OK, [](auto& s) { s = {0x20, 1, 1, 0, 17, 2, 34, 3}; });
    // Nothing is configured: no ports.
    expect_record(kiv_get_ptp_config, KIV_OK, [](kiv_ptp_config_t& config) { std::memset(&config, 0, 5); });
    cards.control("POST", 1, R"({"path": "/hps/firmware/info", "patch": {"User2": "too short"}})");
    expect_record(kiv_get_flash_config, KIV_ERR_FAILED, [](auto&) {});
}

TEST(Queries, LeaveWhatTheyDidNotGetToWhenTheDriverFails) {
    auto card = kivsim::believable_card(1);
    // 32-bit reads are counted: the last of the links' six, then of the streams' three.
    card.driver_faults = {fault(wire::kReadPci32).nth(6).status(-1),
                          fault(wire::kReadPci32).nth(9).status(-1),
                          fault(wire::kReadPci32).nth(12).status(-1),
                          fault(wire::kGetPtpEpochTime).nth(1).status(-1),
                          fault(wire::kGetPtpEpochTimeAndSystemTime).status(-7),
                          fault(wire::kGetUseResourceData).status(-1),
                          fault(wire::kGetPciLinkInfo).status(-1)};
    FoundCards cards({card});
    expect_record(kiv_get_net_status, KIV_ERR_FAILED, [](auto& s) { s.link_up_0 = s.link_up_1 = 1; });
    for (const char* const said :
         {"", "getTxUseResourceData\n"}) {  // First the registers fail, then the resources.
        testing::internal::CaptureStdout();
        expect_record(kiv_get_tx_stream_status, KIV_ERR_FAILED, [](auto&) {});
        EXPECT_EQ(testing::internal::GetCapturedStdout(), said);
        expect_record(kiv_get_rx_stream_status, KIV_ERR_FAILED, [](auto&) {});
    }
    expect_record(kiv_get_ptp_status, KIV_ERR_FAILED, [](auto& status) { status.state = 0; });
    kiv_card_status_t s{{}, 0, 0xA5, 0xA5A5A5A5};
    EXPECT_EQ(kiv_get_card_status(1, &s), KIV_OK);
    EXPECT_EQ(std::tuple(s.pci_link_a, s.pci_link_b, s.board_power), std::tuple(0u, 0xA5, 63u));
    uint64_t time = 0;
    EXPECT_EQ(kiv_get_epoch_and_2point(1, &time, &time, &time), static_cast<kiv_result_t>(-7));
}

TEST(Queries, TakeFromTheServersReportsWhatCanBeRead) {
    const std::string ids = R"("/hps/firmware/info", "patch": {"User1": "0123456789abcdef000000000000000A)";
    const std::string id2 = R"(", "User2": "FEDCBA98765432100000000000000000)", next = " [Next Boot Image]";
    const std::string both = "0 123456789abcdef a fedcba9876543210 0 ", failed = "c1000d00",
                      refused = "c1000a00";
    const std::string master = R"("/hps/ptp/master", "patch": )";
    // clang-format off
    const struct {
        std::string fault;
        std::string (*query)();
        std::string shown;
        std::string last_line = "";
    } rows[] = {
        {R"("/", "cut": "before")", result<kiv_get_media_net_config, kiv_net_config_t>, refused, "Fail get_interface_info"},
        {R"("/hps/info/networks", "patch": {"interfaces": [{"if_name": "maceth1", "ip_addr": "", "netmask": "x", "hw_addr": ""}]})", result<kiv_get_media_net_config, kiv_net_config_t>, failed},
        {R"("/hps/hwmon/info", "status": 500)", result<kiv_get_card_status, kiv_card_status_t>, refused, "Fail get_hwmon_info"},
        {R"("/hps/hwmon/info", "patch": {"label": 1})", result<kiv_get_card_status, kiv_card_status_t>, failed, "Fail parse_json_to_struct_cpp"},
        {R"("/hps/firmware/status", "patch": "")", result<kiv_get_flash_write_status, kiv_flash_status_t>, refused},
        {R"("/hps/firmware/status", "patch": 5)", result<kiv_get_flash_write_status, kiv_flash_status_t>, failed},
        {ids + id2 + "\"}", flash, both + "2"},
        {ids + id2 + next + "\"}", flash, both + "1"},
        {ids + next + id2 + next + "\"}", flash, both + "0"},
        {ids + id2 + " \"}", flash, failed},
        {R"("/hps/firmware/info", "status": 500)", flash, refused, "HTTP Server error status=500, msg=http status 500"},
        {R"("/hps/ptp/master", "status": 500)", ptp, refused, "HTTP Server error status=500, msg=http status 500"},
        {master + R"({"leap59": null})", ptp, failed},
        {master + R"({"currentUtcOffsetValid": 2, "currentUtcOffset": -1, "grandmasterIdentity": "0xaB"})", ptp, "0 0 1 ffffffff ab"},
        {master + R"({"currentUtcOffsetValid": 0, "grandmasterIdentity": "0XFF-ff.FF:ff-ff-ff-ff-fe"})", ptp, "0 0 0 25 fffffffffffffffe"},
        {master + R"({"grandmasterIdentity": "-1"})", ptp, "0 0 1 25 1"},
        {master + R"({"grandmasterIdentity": "00:00000000:0000001"})", ptp, failed},  // 17 digits.
        {master + R"({"grandmasterIdentity": "0x"})", ptp, failed},
        {master + R"({"grandmasterIdentity": "0x0x1"})", ptp, failed},
    };
    // clang-format on
    FoundCards cards(kivsim::default_cards());
    for (const auto& row : rows) {
        cards.control("POST", 1, "{\"path\": " + row.fault + "}");
        EXPECT_EQ(row.query(), row.shown) << row.fault;
        EXPECT_EQ(cards.log_end(), row.last_line) << row.fault;
        cards.control("DELETE", 1, "");
    }
    for (const auto& [state, seen] : {std::pair{"0", "0"}, {"1", "1"}, {"3", "3"}, {"null", "4d"}}) {
        cards.control("PATCH", 1, std::string("{\"ptp_state\": ") + state + "}");
        EXPECT_EQ(ptp(), std::string("0 ") + seen + " 1 25 1dc1fffe123456");
    }
    uint64_t epoch = 0, before = 0, after = 0;
    EXPECT_EQ(kiv_get_epoch_and_2point(1, &epoch, &before, &after), KIV_OK);
    EXPECT_TRUE(0 < before && before <= after && after < epoch && epoch <= tai_now());
}
