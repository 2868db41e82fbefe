// What the commands show of one card, in words and as JSON.
#include "kivctl/Kivctl.h"

TEST_F(KivctlCard, ShowsWhatTheCardTells) {
    const std::string server = simulator_.server_addresses()[0];
    const std::pair<Words, std::string> kDocuments[] = {
        {{"info", "1"},
         R"({"card": 1,
             "registers": {"0x00": "0x4B49562D32313130", "0x08": "0x0002000000010000", "0x10": "0x5354323131300001",
                           "0x18": "0x0000000020260001"}, "ports": [
    {"port": 0, "ip_address": "192.168.10.11", "prefix_length": 24, "mac": "02:4b:56:00:01:00", "link_speed_gbps": 100},
    {"port": 1, "ip_address": "192.168.20.11", "prefix_length": 24, "mac": "02:4b:56:00:01:01", "link_speed_gbps": 100}]})"},
        {{"net"},
         R"({"card": 1, "ports": [{"port": 0, "ip_address": "192.168.10.11", "prefix_length": 24},
                                  {"port": 1, "ip_address": "192.168.20.11", "prefix_length": 24}]})"},
        {{"link", "1"},
         R"({"card": 1, "ports": [{"port": 0, "link": "up", "load_a_percent": 42.5, "load_b_percent": 10.0},
                                  {"port": 1, "link": "up", "load_a_percent": 40.0, "load_b_percent": 5.0}]})"},
        {{"streams"},
         R"({"card": 1, "tx": {"control": 16, "control_bit_25": 1, "control_bit_26": 0, "reg_404": 32, "reg_804": 16,
                               "resources": [4, 8, 16]},
                        "rx": {"control": 16, "control_bit_25": 1, "control_bit_26": 0, "reg_404": 32, "reg_804": 16,
                               "resources": [2, 4, 8]}})"},
        {{"driver"},
         R"({"card": 1, "client_version": "2.3.1", "driver_version": "1.4.0", "functions": [
    {"function": 0, "function_id": 22, "bus": 4, "device": 0, "memory_ids": [256, 257, 258, 259], "identity_kind": 1,
     "identity": "0x4B49560000000001", "identity_text": "KIV-1001"},
    {"function": 1, "function_id": 23, "bus": 4, "device": 0, "memory_ids": [256, 257, 258, 259], "identity_kind": 1,
     "identity": "0x4B49560000000001", "identity_text": "KIV-1001"}],
    "ports": [{"port": 0, "ip_address": "192.168.10.11"}, {"port": 1, "ip_address": "192.168.20.11"}], "tunnel": ")" +
             server + R"(", "resources": {"tx": [4, 8, 16], "rx": [2, 4, 8]},
             "pci_link": {"text": "x16 gen 4", "width": 16, "generation": 4}})"}};
    for (const auto& [words, document] : kDocuments)
        EXPECT_EQ(json_of(words), parsed(document)) << words[0];
    expect({"info", "1"}, 0, "Port 1         192.168.20.11/24, MAC 02:4b:56:00:01:01, 100 Gbit/s\n");
    expect({"--json", "link"}, 0, R"("card": 1)");

    const Json time = json_of({"time"});
    EXPECT_LE(std::stoull(time["system_before"].get<std::string>()),
              std::stoull(time["system_after"].get<std::string>()));
    EXPECT_TRUE(time["ptp_time"]["text"].get<std::string>().ends_with("Z (TAI-UTC 37 s)"));
    add_fault(R"({"path": "/hps/ptp/master", "status": 500})");
    expect({"time"}, 0, " TAI (TAI-UTC not known)");
    expect({"version"}, 0, "Driver client  2.3.1\nDriver         1.4.0\n");
    for (const char* const code : {"0xC1000700", "BUSY"})
        expect({"explain", code}, 0, "result 0xC1000700, KIV_ERR_BUSY: ");
    expect({"explain", "3"}, 0, "exit status 3, ATTENTION: ");
    expect({"explain", "kIOReturnBusy"}, 0, "driver status 0xE00002D5");
    expect({"explain", "0xDEAD"}, 1, "is no code");
}

TEST_F(KivctlCard, MarksSensorsAndLeavesOutWhatIsNotReported) {
    Json status = json_of({"status", "1"});
    EXPECT_EQ(status["attention"], false);
    EXPECT_EQ(status["sensors"][6],
              parsed(R"({"name": "QSFP2 case", "input": 42, "max": 70, "critical": 75, "state": "ok"})"));
    EXPECT_EQ(status["board_power"], 63);
    EXPECT_EQ(status["pci_link"], parsed(R"({"text": "x16 gen 4", "width": 16, "generation": 4})"));

    change({{"hwmon",
             {{{"label", "Board Top Near FPGA Temperature"}, {"input", 58.7}, {"max", 70}, {"critical", 80}},
              {{"label", "Board Rear Side Temperature"}, {"input", -5}, {"max", 70}, {"critical", 80}},
              {{"label", "Board Front Side Temperature"}, {"input", 70}, {"max", 70}, {"critical", 80}},
              {{"label", "QSFP1 Case Temperature"}, {"input", 81}, {"max", 70}, {"critical", 80}}}}});
    status = json_of({"status"}, 3);
    EXPECT_EQ(status["sensors"][1]["state"], "not reported") << "a fraction is no reading";
    EXPECT_TRUE(status["sensors"][1]["input"].is_null());
    EXPECT_EQ(status["attention"], true);
    EXPECT_EQ(status["sensors"][0], parsed(R"({"name": "FPGA fabric", "input": null, "max": null,
                                               "critical": null, "state": "not reported"})"));
    EXPECT_TRUE(status["board_power"].is_null());
    const std::string shown = expect({"status", "1"}, 3, "card 1 needs attention").out;
    for (const char* const line :
         {"\nFPGA fabric      -    -    -         not reported\n",
          "\nBoard rear       -5   70   80        ok\n", "\nBoard front      70   70   80        above max\n",
          "\nQSFP1 case       81   70   80        critical\n", "\nBoard power  -\n"})
        EXPECT_TRUE(has(shown, line)) << line << shown;
}

TEST_F(KivctlCard, ShowsNoControlCharactersOfACard) {
    change({{"links", {false, true}}, {"registers", {{"1", {{"0x21430", 0}, {"0x214A0", 0}}}}}});
    expect({"link", "1"}, 0,
           "PORT  LINK  LOAD A %  LOAD B %\n"
           "0     down  -         -\n"
           "1     up    40.00     5.00\n");
    EXPECT_TRUE(json_of({"link"})["ports"][0]["load_a_percent"].is_null());

    add_fault(R"({"path": "/hps/firmware/info", "patch": {"User1": "\u001b[2J\"x\\y\u0007\u009b"}})");
    const std::string escaped = "\\u001b[2J\"x\\y\\u0007\\u009b";
    EXPECT_EQ(expect({"flash"}, 0).out.substr(0, 16 + escaped.size()), "Slot 0          " + escaped);
    const Ended json = run({"flash", "--json"});
    EXPECT_EQ(json.out.find('\x1b'), std::string::npos);
    EXPECT_EQ(parsed(json.out)["slots"][0], "\x1b[2J\"x\\y\x07\xc2\x9b");
}
