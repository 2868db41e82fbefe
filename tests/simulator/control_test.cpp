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
        {R"({"id": 2})", "id: is fixed while the card runs"},
        {R"({"functions": []})", "functions: is fixed while the card runs"},
        {R"({"functions": [{"number": 0, "connection_type": 23}, {"number": 1, "connection_type": 23}]})", "functions: is fixed while the card runs"},
        {R"({"tunnel": {"port": 1}})", "tunnel: is fixed while the card runs"},
        {R"({"server": "external"})", "server: is fixed while the card runs"},
        {R"({"driver_version": "1.4"})", "driver_version: must be three numbers such as \"1.4.0\""},
        {R"({"driver_version": "1.4.65536"})", "driver_version: must be three numbers such as \"1.4.0\""},
        {R"({"firmware": {"slots": ["00112233445566778899aabbccddeefg", ""]}})", "firmware.slots[0]: must be 32 hexadecimal digits"},
        {R"({"firmware": {"next_boot_slot": 2}})", "firmware.next_boot_slot: must be 0 or 1"},
        {R"({"answers": {"/hps/firmware/": 1}})", "answers./hps/firmware/: is no path that the management server answers GET at"},
        {R"({"anc": {"descriptors": "00"}})", "anc.descriptors: must be 32 hexadecimal digits for each of up to 255 descriptors"},
        {R"({"anc": {"control": [256, 0, 0]}})", "anc.control: must be numbers of 8, 32 and 16 bits"},
        {R"({"http_faults": [{"path": "/hps/hwmon"}]})", "http_faults[0].path: is no path of the management server"},
        {R"({"http_faults": [{"path": "/alive/", "carried_out": false}]})", "http_faults[0].carried_out: can only be false with \"status\", \"body\" or \"cut\""},
        {R"({"http_faults": [{"path": "/alive/", "carried_out": false, "status": 1, "patch": 1}]})", "http_faults[0].carried_out: must be true for a fault with \"patch\""},
        {R"({"driver_faults": [{"selector": 6}, {"selector": 9}]})", "driver_faults[1].selector: is no selector of the driver"},
        // None of the members is taken when one is bad.
        {R"({"links": [false, false], "log": "", "http_faults": [{"path": "/"}], "removed": true, "bus": 256})", "bus: must be at most 255"}};
    // clang-format on
    const std::string before = simulator.control("GET", "/settings").body;
    const auto refusal = [](const std::string& reason) {
        return "400 " + text_of({{"error", "request: " + reason}});
    };
    for (const auto& [body, expected] : rows)
        EXPECT_EQ(patch(body), refusal(expected)) << body;
    EXPECT_EQ(patch(R"({"hwmon": )" + std::string(100'000, '[') + std::string(100'000, ']') + "}"),
              refusal("more than 64 levels of JSON"));
    std::string members = "{\"answers\": {";
    for (int i = 0; i <= 10'000; ++i)
        members += "\"" + std::to_string(i) + "\":0,";
    EXPECT_EQ(patch(members + "\"\":0}}"), refusal("more than 10000 members in one JSON object"));
    std::string numbers = "1";
    for (int i = 0; i < 50'000; ++i)
        numbers += ",1";
    EXPECT_EQ(patch("{\"pci_link\": [" + numbers + "]}"), refusal("pci_link: must have 2 numbers"));
    for (const char* const text :
         {"", "{", "\"", "[]", "{\"log\": \"\xFF\"}", "{\"log\": 1e999}", "{\"\xC0\": 1}"})
        EXPECT_TRUE(patch(text).starts_with("400 {\"error\":\"request: ")) << text;
    EXPECT_EQ(simulator.control("GET", "/settings").body, before);

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
