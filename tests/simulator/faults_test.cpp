#include <IOKit/IOKitLib.h>

#include <kiv/kivDriverClient.h>
#include "support/DriverFault.h"
#include "support/Json.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

namespace {

class Faults : public testing::Test {
  protected:
    Json control(const std::string& method, const std::string& path, const std::string& body = "") {
        const ControlAnswer answer = simulator.control(method, path, body);
        EXPECT_EQ(answer.status, 200) << answer.body;
        return parsed(answer.body);
    }
    ControlAnswer ask(const std::string& method, const std::string& path, const std::string& body = "",
                      std::size_t card = 0) {
        return ask_address(simulator->server_addresses()[card], method, "/api/v1.0" + path, body);
    }

    RunningSimulator simulator;
};

TEST_F(Faults, OfTheDriverComeAndGoWhileItRunsAndCountTheirHits) {
    const auto clients = kivDriverClient::enumerateDevices("kivPCIService");
    ASSERT_EQ(clients.size(), 4u);
    uint64_t value = 0;
    const auto read = [&] { return clients[0]->read_pci64(0, 0x140, &value); };
    EXPECT_EQ(read(), 0);
    control("POST", "/driver_faults", R"({"selector": 6, "nth": 2, "status": "0xE00002D5"})");
    control("POST", "/driver_faults", R"({"selector": 22, "reply_size": 1})");
    EXPECT_EQ((std::array{read(), read(), read()}), (std::array{0, kIOReturnBusy, 0}));
    EXPECT_EQ(clients[2]->read_pci64(0, 0x140, &value), 0) << "another card";
    const Json list = parsed(R"([{"selector":6,"nth":2,"status":"0xe00002d5","hits":1},
                                 {"selector":22,"reply_size":1,"hits":0}])");
    EXPECT_EQ(control("GET", "/driver_faults"), list);
    EXPECT_EQ(control("GET", "").at("driver_faults"), list);
    control("DELETE", "/driver_faults");
    EXPECT_EQ(control("GET", "/driver_faults"), Json::array());
    EXPECT_EQ(simulator.control("POST", "/driver_faults", R"({"selector": 12})").body,
              "{\n    \"error\": \"request: selector: is no selector of the driver\"\n}\n");
}

TEST_F(Faults, OfRequestsSayWhetherTheRequestIsCarriedOut) {
    const std::string path = "/hps/control/igmp";
    const std::string body =
        R"({"settings": [{"pid": 1, "dst_ip_addr": "", "if_name": "", "ssm_source_addr": ""}]})";
    const std::tuple<const char*, bool, int, const char*> rows[] = {
        {R"("status": 500)", true, 500, R"({"data":"ok"})"},
        {R"("status": 500, "carried_out": false)", false, 500, R"({"data":{"error":"not carried out"}})"},
        {R"("body": "lie", "carried_out": false)", false, 200, "lie"},
        {R"("cut": "before", "carried_out": true)", true, 0, ""},
        {R"("cut": "before", "carried_out": false)", false, 0, ""},
        {R"("delay_ms": 1)", true, 200, R"({"data":"ok"})"},
    };
    for (const auto& [members, carried_out, status, expected] : rows) {
        SCOPED_TRACE(members);
        control("PATCH", "", R"({"memberships": [], "http_faults": []})");
        const std::string at = R"({"path": "/hps/control/", "method": "POST", )";
        control("POST", "/http_faults", at + members + "}");
        const ControlAnswer answer = ask("POST", path, body);
        EXPECT_EQ(std::tuple(answer.status, answer.body), std::tuple(status, expected));
        const Json settings = control("GET", "/settings");
        EXPECT_EQ(settings.at("memberships").size(), carried_out ? 1u : 0u);
        EXPECT_EQ(settings.at("http_faults")[0].at("carried_out"), carried_out);
        EXPECT_EQ(simulator.requests().back().carried_out, carried_out);
        EXPECT_EQ(ask("GET", path).status, 200);
        EXPECT_EQ(control("GET", "/http_faults")[0].at("hits"), 1);
    }
    control("DELETE", "/http_faults");
    EXPECT_EQ(control("GET", "").at("http_faults"), Json::array());
}

TEST_F(Faults, ThatDelayAnswersOfOneCardHoldUpNoOther) {
    control("POST", "/http_faults", R"({"path": "/hps/hwmon/info", "delay_ms": 600000})");
    std::vector<std::future<ControlAnswer>> waiting;
    const std::string server = simulator->server_addresses()[0];
    for (int i = 0; i < 16; ++i)
        waiting.push_back(std::async(std::launch::async,
                                     [&] { return ask_address(server, "GET", "/api/v1.0/hps/hwmon/info"); }));
    EXPECT_TRUE(wait_until([&] { return simulator.requests().size() == 16; })) << "all are under way";
    EXPECT_EQ(ask("GET", "/hps/hwmon/info", "", 1).status, 200) << "another card";
    EXPECT_EQ(ask("GET", "/hps/firmware/status").status, 200) << "the same card";
    control("DELETE", "/http_faults");
    EXPECT_EQ(ask("GET", "/hps/hwmon/info").status, 200);
    simulator.stop();  // Ends their wait.
}

}  // namespace
