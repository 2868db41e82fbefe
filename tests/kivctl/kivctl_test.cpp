// kivctl and the examples as a person runs them, against the simulator.
#include "kivctl/Kivctl.h"
#include "support/LoopbackServer.h"
#include "support/RunningSimulator.h"

const char* const kKivctlProgram = KIVCTL_PROGRAM;

TEST_F(Kivctl, ScanAgreesWithTheCardsFile) {
    TemporaryDirectory directory;
    write_file(directory / "cards.json", R"({"cards": [
        {"id": 200, "registers": {"0": {"0x10": "0x1122334455667788"}},
         "interfaces": [{"if_name": "maceth0", "ip_addr": "10.9.8.7", "netmask": "255.0.0.0", "hw_addr": "x"},
                        {"if_name": "maceth1", "ip_addr": "10.9.8.6", "netmask": "255.0.0.0", "hw_addr": "y"}]},
        {"id": 3, "addresses": ["172.16.0.1", "172.16.1.1"], "tunnel": {"address": "127.0.0.9"}}]})");
    RunningSimulator simulator(kivsim::load_cards(directory / "cards.json"));
    const std::vector<std::string> servers = simulator->server_addresses();

    const Ended json = run({"scan", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(parsed(json.out),
              parsed(R"([{"id": 3, "card_word": "0x5354323131300003", "ports": ["172.16.0.1", "172.16.1.1"],
                               "server": ")" +
                     servers[1] + R"("}, {"id": 200, "card_word": "0x1122334455667788",
                               "ports": ["10.9.8.7", "10.9.8.6"], "server": ")" +
                     servers[0] + R"("}])"));

    const Ended table = run({"scan"});
    EXPECT_EQ(table.status, 0);
    EXPECT_EQ(table.out,
              "ID   CARD WORD           PORT 0      PORT 1      SERVER\n"
              "3    0x5354323131300003  172.16.0.1  172.16.1.1  " +
                  servers[1] + "\n" + "200  0x1122334455667788  10.9.8.7    10.9.8.6    " + servers[0] +
                  "\n");
}

TEST_F(Kivctl, InfoShowsOneCard) {
    RunningSimulator simulator;
    const Ended json = run({"info", "2", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(parsed(json.out), parsed(R"({"id": 2,
        "registers": {"0x00": "0x4B49562D32313130", "0x08": "0x0002000000010000", "0x10": "0x5354323131300002",
                      "0x18": "0x0000000020260002"},
        "ports": [{"mac_address": "02:4b:56:00:02:00", "link_speed_gbps": 100, "ip_address": "192.168.10.12",
                   "prefix_length": 24},
                  {"mac_address": "02:4b:56:00:02:01", "link_speed_gbps": 100, "ip_address": "192.168.20.12",
                   "prefix_length": 24}]})"));
    const Ended text = run({"info", "2"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("Port 1         192.168.20.12/24, MAC 02:4b:56:00:02:01, 100 Gbit/s\n"),
              std::string::npos);
}

TEST_F(Kivctl, SaysWhyThereIsNoCard) {
    const auto expect_empty = [](const std::string& why) {
        const Ended json = run({"scan", "--json"});
        EXPECT_EQ(json.status, 0);
        EXPECT_EQ(json.out, "[]\n");
        EXPECT_NE(json.err.find(why), std::string::npos) << json.err;
        const Ended table = run({"scan"});
        EXPECT_EQ(table.status, 0);
        EXPECT_EQ(table.out, "");
    };
    setenv("KIVSIM_SOCKET", "/nonexistent/socket", 1);
    expect_empty("no driver process is running");
    RunningSimulator simulator(std::vector<kivsim::CardSettings>{});
    expect_empty("the driver is running, but has no cards");
    const Ended info = run({"info", "1"});
    EXPECT_EQ(info.status, 1);
    EXPECT_NE(info.err.find("0xC1000400 KIV_ERR_NO_DEVICE: "), std::string::npos) << info.err;
}

TEST_F(Kivctl, TellsFailuresFromWrongUsage) {
    kivsim::CardSettings unreachable = kivsim::believable_card(1);
    unreachable.external_server = true;
    unreachable.tunnel_port = unused_port();
    RunningSimulator simulator({unreachable});
    const Ended failed = run({"scan"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.out, "");
    EXPECT_NE(failed.err.find("scan failed: 0xC1000D00 KIV_ERR_FAILED: "), std::string::npos) << failed.err;

    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{},
                                               {"scna"},
                                               {"scan", "--jsn"},
                                               {"info"},
                                               {"info", "256"},
                                               {"info", "x"},
                                               {"ptp"},
                                               {"ptp", "set"},
                                               {"ptp", "1", "set", "2"},
                                               {"ptp", "set", "1", "--domain", "256"},
                                               {"ptp", "set", "1", "--log-announce-interval", "-129"},
                                               {"ptp", "set", "1", "--ip0", "192.168.10.11"},
                                               {"ptp", "set", "1", "--ip1", "192.168.10.11/33"},
                                               {"ptp", "set", "1", "--vlan0", "0"},
                                               {"ptp", "set", "1", "--vlan1", "4095"},
                                               {"ptp", "set", "1", "--unicast-delay-req", "1"},
                                               {"flash", "write", "1"},
                                               {"flash", "select", "1", "x"},
                                               {"config"},
                                               {"config", "show", "1"}}) {
        const Ended misused = run(words);
        EXPECT_EQ(misused.status, 2) << testing::PrintToString(words);
        EXPECT_NE(misused.err, "");
    }
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"--help"}, {"flash", "--help"}, {"ptp", "set", "--help"}})
        EXPECT_EQ(run(words).status, 0);

    configuration_.write("{");
    const Ended unopened = run({"scan"});
    EXPECT_EQ(unopened.status, 1);
    EXPECT_NE(unopened.err.find("Error: JSON parsing failed in "), std::string::npos) << unopened.err;
}
