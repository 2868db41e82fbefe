// The doctor in front of what can be wrong with a machine and its cards.

#include "kivctl/Kivctl.h"

namespace {

struct Finding {
    const char* check;
    const char* result;
    const char* phrase;  ///< In its message.
    int status;          ///< Exit.
    int not_well = 1;    ///< Checks that warn or fail, this one among them.
    const char* timeout = "30";
};

class Doctor : public KivctlConfigured {
  protected:
    static std::vector<kivsim::CardSettings> cards(const std::string& members) {
        return cards_of(R"({"cards": [{"id": 1)" + (members.empty() ? "" : ", " + members) + "}]}");
    }

    static void finds(const Finding& wanted, Json card) {
        const Ended ended = run({"doctor", "--json", "--timeout", wanted.timeout});
        EXPECT_EQ(ended.status, wanted.status) << ended.out << ended.err;
        if (ended.out.empty()) return;
        const Json report = parsed(ended.out);
        EXPECT_EQ(report["schema"], "kivctl.doctor/1");
        int not_well = 0;
        Json found;
        for (const Json& check : report["checks"]) {
            const bool well = check["result"] == "OK" || check["result"] == "SKIP";
            if (!well) ++not_well;
            EXPECT_EQ(check["remedy"].is_string(), !well) << text_of(check);
            if (check["check"] == wanted.check && check["card"] == card) found = check;
        }
        EXPECT_EQ(not_well, wanted.not_well) << text_of(report);
        ASSERT_FALSE(found.is_null()) << text_of(report);
        EXPECT_EQ(found["result"], wanted.result) << text_of(found);
        EXPECT_TRUE(has(found["message"].get<std::string>(), wanted.phrase)) << text_of(found);
    }
};

// Members of card 1 in a cards file.
// clang-format off
const std::pair<const char*, Finding> kBrokenCards[] = {
    {R"("driver_faults": [{"selector": 6, "status": "0xE00002CA"}])", {"identity", "FAIL", "reading register 0x0 failed: driver status 0xE00002CA", 1, 3}},
    {R"("registers": {"0": {"0x0": "0xFFFFFFFFFFFFFFFF", "0x8": "0xFFFFFFFFFFFFFFFF", "0x10": "0xFFFFFFFFFFFFFFFF",
         "0x18": "0xFFFFFFFFFFFFFFFF", "0x38": "0xFFFFFFFFFFFFFFFF", "0x140": "0xFFFFFFFFFFFFFFFF"}})",
     {"identity", "FAIL", "does not answer on PCI Express", 1}},
    {R"("driver_faults": [{"selector": 6, "delay_ms": 600000}])", {"identity", "FAIL", "no answer within 2 s", 1, 1, "6"}},
    {R"("driver_faults": [{"selector": 4, "status": 6}])", {"versions", "FAIL", "driver status 0x00000006", 1}},
    {R"("functions": [{"number": 0, "connection_type": 22}])", {"connection", "FAIL", "no connection to function 23", 1, 3}},
    {R"("server": "external", "tunnel": {"address": "127.0.0.1", "port": 1})", {"server", "FAIL", "http://127.0.0.1:1/api/v1.0: Connection refused", 1}},
    {R"("http_faults": [{"path": "/", "delay_ms": 600000}])", {"server", "FAIL", "no whole answer within 2 s", 1}},
    {R"("http_faults": [{"path": "/hps/info/networks", "body": "<html>"}])", {"server", "FAIL", "is no JSON", 1, 2}},
    {R"("http_faults": [{"path": "/hps/info/networks", "status": 502}])", {"server", "FAIL", "HTTP status 502", 1, 2}},
    {R"("addresses": ["192.168.10.99", "192.168.20.11"])",
     {"interfaces", "WARN", "maceth0: the card has 192.168.10.99/255.255.255.0, the file 192.168.10.11/255.255.255.0", 3}},
    {R"("interfaces": [])", {"interfaces", "WARN", "maceth1: the card has nothing", 3}},
    {R"("links": [true, false])", {"links", "WARN", "port 0 up, port 1 down", 3}},
    {R"("ptp_state": 3, "ptp_management": {"masterLockingStatus": 2})", {"ptp", "WARN", "cold locking (2), register state 3", 3}},
    {R"("ptp_management": {})", {"ptp", "FAIL", "masterLockingStatus", 1}},
    {R"("hwmon": [{"label": "FPGA", "input": 95, "max": 95, "critical": 100}, {"label": "Cold", "input": -5, "max": 0}])",
     {"sensors", "WARN", "FPGA: 95, max is 95", 3}},
    {R"("hwmon": [{"label": "A", "input": 9, "max": 8, "critical": 9}, {"label": "B", "input": 8, "max": 8}])",
     {"sensors", "FAIL", "A: 9, critical is 9; B: 8, max is 8", 1}},
    {R"("http_faults": [{"path": "/hps/firmware/info", "patch": {"User2": null}}])", {"flash", "FAIL", "image of slot 1", 1}},
    {R"("firmware": {"status": "verifying"})", {"flash", "WARN", "busy: verifying", 3}},
    {R"("ptp_master": {"currentUtcOffsetValid": 1, "currentUtcOffset": 0})", {"time", "WARN", "37.0 s ahead of the system clock", 3}},
    {R"("ptp_master": {"currentUtcOffsetValid": 0, "currentUtcOffset": 0})", {"time", "SKIP", "TAI and UTC", 0, 0}}};
// clang-format on

}  // namespace

TEST_F(Doctor, NamesTheFaultOfACard) {
    for (const auto& [members, finding] : kBrokenCards) {
        SCOPED_TRACE(members);
        const RunningSimulator simulator(cards(members));
        finds(finding, 1);
    }
}

TEST_F(Doctor, FindsNothingWhereAllIsWell) {
    const RunningSimulator simulator;
    const std::string all = expect({"doctor"}, 0).out;
    EXPECT_TRUE(all.starts_with("OK              configuration  /")) << all;
    EXPECT_TRUE(has(all, "\nOK    card 2    ptp            master: locked (4), register state 0\n"));
    for (const char* const word : {"SKIP", "WARN", "FAIL", "card 1"})
        EXPECT_FALSE(has(run({"doctor", "2"}).out, word)) << word;
    expect({"doctor", "7"}, 1,
           "FAIL            services       no card 7: the driver has 1, 2\n" + std::string(31, ' '));
}

TEST_F(Doctor, LooksAtHealthyCardsBesideOneThatHangs) {
    const RunningSimulator simulator;
    simulator.control("POST", "/driver_faults", R"({"selector": 16, "delay_ms": 600000})");
    finds({"time", "OK", "within 1 s", 1, 1, "6"}, 2);
}

TEST_F(Doctor, NamesTheFaultOfTheMachine) {
    const RunningSimulator simulator(cards(""));
    finds({"connection", "SKIP", "the driver does not list it", 0, 0}, 2);
    configuration_.write("{\n\"version\": 1,\n}");
    finds({"configuration", "FAIL", "hps_boot.json: line 3: column 1: syntax error", 1}, nullptr);
    configuration_.write(R"({"version": 1, "ptp": {"announceReceiptTimeout": 3, "domainNumber": 127,
        "logAnnounceInterval": 0, "logDelayReqInterval": 0, "unicast_delay_req": 1}, "devices": [], "more": 1,
        "mactun": {"ip_addr": "127.0.0.1", "server_port": 80}})");
    finds({"configuration", "WARN", ": more: is not known", 3}, nullptr);
    finds({"interfaces", "SKIP", "no entry", 3}, 1);
    configuration_.remove();
    finds({"configuration", "FAIL", "No such file", 1}, nullptr);
    finds({"interfaces", "SKIP", "no configuration", 1}, 1);
}

TEST_F(Doctor, NamesTheProxyThatStandsBetween) {
    const RunningSimulator simulator(cards(""));
    setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
    finds({"server", "FAIL", "(through the proxy in ALL_PROXY)", 1, 6}, 1);
    setenv("no_proxy", "localhost,127.0.0.1", 1);
    finds({"server", "OK", "http://127.0.0.1:", 0, 0}, 1);
}

TEST_F(Doctor, NamesTheFaultOfTheDriver) {
    {
        const RunningSimulator none(std::vector<kivsim::CardSettings>{});
        finds({"services", "FAIL", "the driver has none", 1}, nullptr);
    }
    finds({"driver", "FAIL", "No such file", 1}, nullptr);
    setenv("KIVSIM_SOCKET", std::string(200, 'x').c_str(), 1);
    finds({"driver", "FAIL", "is longer than the 107 bytes", 1}, nullptr);
    const RunningSimulator hangs(cards(R"("driver_faults": [{"selector": 26, "delay_ms": 600000}])"));
    finds({"services", "FAIL", "no answer within 2 s", 1, 1, "6"}, nullptr);
}
