#include <IOKit/IOKitLib.h>

#include <kiv/kivDriverClient.h>
#include "scenario/actions.h"
#include "settings/members.h"
#include "support/Json.h"
#include "support/Patterns.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

namespace {

// Every member that can change, with another value than a believable card has.
constexpr char kMembers[] = R"({
    "identity": {"kind": 0, "value": "0xFEDCBA9876543210", "text": "another card"}, "bus": 17, "device": "0x1F",
    "functions": [{"number": 0, "connection_type": 22, "pci_link": [8, 3]}, {"number": 1, "connection_type": 23}],
    "pci_link": {"1": [4, 2]}, "driver_version": "2.10.65535",
    "registers": {"0": {"0x1000": 7, "0x1008": "0x123456789ABCDEF0"}, "5": {"0xFFFFFC": "0xFFFFFFFF"}},
    "links": [false, true], "ptp_state": 3, "addresses": ["10.0.0.1", "10.0.0.2"], "ptp_selected": 1,
    "resources": {"tx": [1, 2, 3], "rx": [4, 5, 65535]},
    "anc": {"direction": true, "descriptors": "000102030405060708090A0B0C0D0E0F", "control": [1, 4294967295, 3]},
    "interfaces": [{"if_name": "maceth0", "ip_addr": "10.0.0.1", "netmask": "255.0.0.0", "hw_addr": "\u00e4\u0000"}],
    "hwmon": [{"label": "Board Power", "input": 99, "max": 75}], "ptp_master": {}, "ptp_management": null,
    "memberships": [{"pid": -5, "dst_ip_addr": "239.0.0.1", "if_name": "maceth0", "ssm_source_addr": "10.0.0.9"}],
    "firmware": {"slots": ["00112233445566778899aabbccddeeff", "ffeeddccbbaa99887766554433221100"],
                 "next_boot_slot": 1, "status": "failed", "fails_while": "writing"},
    "flash_ms": 10, "log": "line\n", "wrapping": "none", "interrupt_ms": 5,
    "answers": {"/hps/ptp/master": {"a": [1.5, null]}, "/hps/download/log": "recorded"},
    "http_faults": [{"path": "/hps/firmware/", "method": "POST", "nth": 2, "delay_ms": 1, "cut": "inside", "status": 500,
                     "body": "b", "carried_out": false}, {"path": "/alive/7", "patch": {"a": null}}],
    "driver_faults": [{"selector": 22, "nth": 9, "status": "0xE00002D5", "delay_ms": 1, "reply_size": 0}],
    "removed": false
})";

std::string settings_of(const RunningSimulator& simulator) {
    return ask_address(simulator->control_address(), "GET", "/settings").body;
}

/// What the first card's server answers.
ControlAnswer ask_server(const RunningSimulator& simulator, const std::string& method,
                         const std::string& path, const std::string& body = "",
                         const std::string& type = "application/json") {
    return ask_address(simulator->server_addresses()[0], method, "/api/v1.0/hps/" + path, body, type);
}

kivDriverClientList clients() {
    return kivDriverClient::enumerateDevices("kivPCIService");
}

TEST(CardSettings, AreReadBackAndMakeTheSameCardsAgain) {
    std::string before;
    {
        const RunningSimulator simulator;
        const ControlAnswer answer = simulator.control("PATCH", "", kMembers);
        ASSERT_EQ(answer.status, 200) << answer.body;
        const auto list = clients();  // What programs do counts too.
        ASSERT_EQ(list.size(), 4u);
        EXPECT_EQ(list[2]->write_pci64(3, 0x10, 0x0000000500000006), 0);
        kivDriverClient::device_conf_t conf = list[2]->device_conf;
        conf.ip[1] = 0x0A0B0C0D;
        EXPECT_EQ(list[2]->set_device_conf(conf), 0);
        EXPECT_EQ(simulator.control("PATCH", "", R"({"removed": true})", 2).status, 200);
        before = settings_of(simulator);
        const Json cards = parsed(before).at("cards");
        EXPECT_EQ(cards[0].at("registers").at("5"), (Json{{"0xfffffc", "0xffffffff"}}));
        EXPECT_EQ(cards[1].at("registers").at("3"), (Json{{"0x10", "0x500000006"}}));
        EXPECT_EQ(cards[1].at("addresses")[1], "10.11.12.13");
        EXPECT_EQ(parsed(simulator.control("GET", "/settings").body), cards[0]);
        // What was read can be given back whole, also what is fixed.
        EXPECT_EQ(simulator.control("PATCH", "", text_of(cards[0])).status, 200);
        EXPECT_EQ(settings_of(simulator), before);
    }
    const RunningSimulator again(cards_of(before));
    EXPECT_EQ(settings_of(again), before);
}

TEST(CardSettings, AndTheStepsOfAScenarioAreInTheManuals) {
    const std::vector<const char*> actions = kivsim::action_keys();
    std::vector<std::string> keys(actions.begin(), actions.end());
    const Json card = json_of(kivsim::believable_card(1));
    for (const auto& member : card.items())
        keys.push_back(member.key());
    for (const std::string page : {"man/kivsim-cards.5", "docs/simulator.md"}) {
        const std::string manual = read_file(KIV_ROOT + page);
        for (const std::string& key : keys)
            EXPECT_NE(matches_of(manual, "\\b" + key + "\\b"), Lines()) << page << ": " << key;
    }
}

/// What a card shows to programs that talk to its driver and its management server.
void expect_changed(const RunningSimulator& simulator) {
    const auto list = clients();
    ASSERT_EQ(list.size(), 2u);
    kivDriverClient& client = *list[0];
    const auto& boot = client.boot_conf;
    EXPECT_EQ(std::tuple(boot.bus, boot.device, boot.identity_kind, boot.identity),
              std::tuple(17, 31, 0, 0xFEDCBA9876543210u));
    EXPECT_STREQ(boot.identity_text, "another card");
    EXPECT_EQ(std::tuple(client.device_conf.ip[0], client.device_conf.ip[1]),
              std::tuple(0x0A000001u, 0x0A000002u));
    uint16_t version[3]{};
    EXPECT_EQ(client.get_version_dext(version[0], version[1], version[2]), 0);
    EXPECT_EQ(std::tuple(version[0], version[1], version[2]), std::tuple(2, 10, 65535));
    kivDriverClient::use_resource use{};
    EXPECT_EQ(client.get_use_resource_data(use), 0);
    EXPECT_EQ(std::tuple(use.tx[0], use.rx[2]), std::tuple(1, 65535));
    for (const auto& [index, lanes] : {std::pair(0, 8), {1, 4}}) {
        kivDriverClient::pci_link_info link{};
        EXPECT_EQ(list[static_cast<size_t>(index)]->get_pci_link_info(link), 0);
        EXPECT_EQ(link.value[0], lanes);
    }
    uint64_t value = 0;
    EXPECT_EQ(client.read_pci64(0, 0x140, &value), 0);
    EXPECT_EQ(value, 0x480u);
    uint64_t count = 0;
    EXPECT_EQ(client.get_anc_info(&count, &value), 0);
    EXPECT_EQ(std::tuple(count, value), std::tuple(1u, 0xFFFFFFFFu));
    const auto get = [&](const char* path) { return ask_server(simulator, "GET", path).body; };
    EXPECT_EQ(get("hwmon/info"), R"([{"label":"Board Power","input":99,"max":75}])");
    EXPECT_EQ(get("ptp/master"), R"({"a":[1.5,null]})");
    EXPECT_EQ(get("ptp/management"), "null");
    EXPECT_EQ(get("download/log"), "recorded");
    EXPECT_EQ(get("firmware/status"), "\"failed\"");
    EXPECT_EQ(get("firmware/info"), R"({"User1":"00112233445566778899aabbccddeeff",)"
                                    R"("User2":"ffeeddccbbaa99887766554433221100 [Next Boot Image]"})");
    EXPECT_TRUE(has(get("info/networks"), "255.0.0.0"));
    EXPECT_TRUE(has(get("control/igmp"), "\"pid\":-5"));
}

TEST(CardSettings, AreTheSameFromTheFileAndWhileACardRuns) {
    Json card{{"id", 1}};
    card.update(parsed(kMembers));
    const std::string file = text_of({{"cards", {card}}});
    for (const bool from_file : {true, false}) {
        SCOPED_TRACE(from_file);
        const RunningSimulator simulator(from_file ? cards_of(file)
                                                   : std::vector{kivsim::believable_card(1)});
        EXPECT_EQ(simulator.control("PATCH", "", from_file ? "{}" : kMembers).status, 200);
        expect_changed(simulator);
    }
}

TEST(CardSettings, InterruptsFollowTheirPeriodAndAWriteEndsWithTheStatusThatIsSet) {
    const RunningSimulator simulator({kivsim::believable_card(1)});
    const auto list = clients();
    ASSERT_EQ(list.size(), 2u);
    std::atomic<int> heard = 0;
    list[0]->set_callback([&](const auto&) { ++heard; });
    ASSERT_EQ(list[0]->open(true), 0);
    ASSERT_TRUE(wait_until([&] { return !simulator.calls(22).empty(); }));
    EXPECT_EQ(list[0]->enable_interrupt(3), 0);
    const auto change = [&](const char* members) {
        EXPECT_EQ(simulator.control("PATCH", "", members).status, 200);
    };
    change(R"({"interrupt_ms": 3600000})");
    EXPECT_TRUE(wait_until([&] { return heard == 1; }));
    change(R"({"interrupt_ms": 1})");
    EXPECT_TRUE(wait_until([&] { return heard > 3; }));

    const std::string form =
        "--x\r\nContent-Disposition: form-data; name=\"file\"; filename=\"f\"\r\n\r\n1\r\n--x--\r\n";
    const std::string type = "multipart/form-data; boundary=x";
    const std::string start = R"({"start":true,"md5hush":""})";
    const auto status = [&] { return ask_server(simulator, "GET", "firmware/status").body; };
    EXPECT_EQ(ask_server(simulator, "POST", "firmware/upload", form, type).status, 200);
    EXPECT_EQ(ask_server(simulator, "PATCH", "firmware/control", start).status, 200);
    EXPECT_EQ(status(), R"({"data":"erasing"})");
    change(R"({"links": [true, true]})");
    EXPECT_NE(status(), R"({"data":"idle"})") << "a change of anything else leaves the write alone";
    change(R"({"firmware": {"status": "failed"}, "flash_ms": 1})");
    EXPECT_EQ(status(), R"({"data":"failed"})");
}

}  // namespace
