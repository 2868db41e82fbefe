#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <kiv/kivClient.h>
#include <kiv/kivDriverClient.h>
#include "support/Json.h"
#include "support/RunningSimulator.h"

namespace {

TEST(Control, RefusesABadValueAndTakesACardOutOfItsSlotAndBack) {
    RunningSimulator simulator;
    const auto patch = [&](const std::string& body) {
        const ControlAnswer answer = simulator.control("PATCH", "", body);
        return std::to_string(answer.status) + " " + text_of(parsed(answer.body));
    };
    // clang-format off
    const std::pair<const char*, const char*> rows[] = {
        {R"({"links": [true, 1]})", "links: must be two of true and false"},
        {R"({"ptp_state": 2})", "ptp_state: must be 0, 1, 3 or null"},
        {R"({"registers": {"1": {"0x1000000": 1}}})", "registers.1.0x1000000: must be an offset inside a BAR of 16 MiB"},
        {R"({"pci_link": [1, 256]})", "pci_link[1]: must be at most 255"},
        {R"({"pci_link": {"2": [1, 2]}})", "pci_link.2: is no PCI function of the card"},
        {R"({"resources": {"tx": [1, 2, 3, 4]}})", "resources.tx: must have 3 numbers"},
        {R"({"removed": "yes"})", "removed: must be true or false"},
    };
    // clang-format on
    for (const auto& [body, expected] : rows)
        EXPECT_EQ(patch(body), std::string(R"(400 {"error":"request: )") + expected + "\"}") << body;
    EXPECT_EQ(patch(R"({"hwmon": )" + std::string(100'000, '[') + std::string(100'000, ']') + "}"),
              R"(400 {"error":"more than 64 levels of JSON"})");

    const auto clients = kivDriverClient::enumerateDevices("kivPCIService");
    ASSERT_EQ(clients.size(), 4u);
    HttpClient server("http://" + simulator->server_addresses()[0]);
    uint64_t value = 0;
    for (const bool back : {false, true}) {
        EXPECT_EQ(patch(back ? R"({"removed": false})" : R"({"removed": true, "links": [true, false]})"),
                  R"(200 "ok")");
        EXPECT_EQ(clients[0]->read_pci64(0, 0x140, &value), back ? 0 : kIOReturnNotAttached);
        EXPECT_EQ(kivDriverClient::enumerateDevices("kivPCIService").size(), back ? 4u : 2u);
        EXPECT_EQ(server.get("/api/v1.0/hps/hwmon/info").success, back);
    }
}

}  // namespace
