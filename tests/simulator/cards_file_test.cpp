#include <gtest/gtest.h>
#include "card/CardSettings.h"
#include "scenario/Scenario.h"

#include <tuple>

#include "support/TemporaryDirectory.h"

namespace {

/// The complaint about a file of this text, without the file's name, which it must begin with.
std::string complaint_about(const std::string& text) {
    const TemporaryDirectory directory;
    const std::string path = directory / "cards.json";
    write_file(path, text);
    try {
        kivsim::load_scenario(path);
    } catch (const kivsim::BadConfig& error) {
        const std::string what = error.what();
        return what.starts_with(path + ": ") ? what.substr(path.size() + 2) : "no file name: " + what;
    }
    return "";
}

TEST(CardsFile, ThatIsWrongNamesTheKey) {
    const std::string number = R"(must be a number, 0 or greater, or a text such as "0x1F")";
    const std::string address = R"(must be an IPv4 address such as "10.0.0.1")";
    const std::pair<const char*, std::string> files[] = {
        {"[]", "the top level must be an object"},
        {"{}", "cards: missing"},
        {R"({"cards": [], "card": []})", "card: unknown key"},
        {R"({"cards": [{}]})", "cards[0].id: missing"},
        {R"({"cards": [{"id": -1}]})", "cards[0].id: " + number},
        {R"({"cards": [{"id": 1}, {"id": "0x01"}]})", "cards[1].id: is another card's"},
    };
    for (const auto& [text, expected] : files)
        EXPECT_EQ(complaint_about(text), expected) << text;

    const std::pair<const char*, std::string> cards[] = {
        {R"("name": "x")", "name: unknown key"},
        {R"("bus": "0x")", "bus: " + number},
        {R"("identity": {"value": "18446744073709551616"})", "identity.value: " + number},
        {R"("identity": {"text": "12345678901234567890123456789012345678901234567890123456789012345"})",
         "identity.text: must have at most 64 characters"},
        {R"("functions": [{"number": 0}])", "functions[0].connection_type: missing"},
        {R"("functions": [{"number": 0, "connection_type": 22, "pci_link": [1]}])",
         "functions[0].pci_link: must have 2 numbers"},
        {R"("registers": {"6": {}})", R"(registers.6: BARs are "0" to "5")"},
        {R"("addresses": ["10.0.0.1"])", "addresses: must have two entries, one for each media port"},
        {R"("addresses": ["10.0.0.1", "10.0.0"])", "addresses[1]: " + address},
        {R"("tunnel": {"address": "10.0.0.1"})",
         "tunnel.address: must be a loopback address (127.x.x.x) unless the server is external"},
        {R"("server": "internal")", R"(server: can only be "external")"},
        {R"("server": "external", "tunnel": {"address": "127.0.0.1"})",
         "server: needs \"tunnel\" with the address and the port of that server"},
        {R"("server": "external", "tunnel": {"port": 80})",
         "server: needs \"tunnel\" with the address and the port of that server"},
        {R"("driver_faults": [{"selector": 4, "status": 4294967296}])",
         "driver_faults[0].status: must be at most 4294967295"},
    };
    for (const auto& [members, expected] : cards)
        EXPECT_EQ(complaint_about(R"({"cards": [{"id": 1, )" + std::string(members) + "}]}"),
                  "cards[0]." + expected)
            << members;

    EXPECT_TRUE(complaint_about("{\"cards\":\n  [,]}").starts_with("parse error at line 2, column 4: "));
}

TEST(CardsFile, TakesItsRegistersInPlaceOfTheBelievableOnesAndMakesTheInterfaces) {
    const TemporaryDirectory directory;
    write_file(directory / "cards.json", R"({"cards": [{
        "id": "0xFE", "registers": {"5": {"0xFFFFF8": 1}}, "addresses": ["10.0.0.1", "255.255.255.255"],
        "tunnel": {"address": "10.1.2.3", "port": 65535}, "server": "external"
    }, {"id": 0}]})");
    const std::vector<kivsim::CardSettings> cards = kivsim::load_scenario(directory / "cards.json").cards;
    ASSERT_EQ(cards.size(), 2u);
    EXPECT_EQ(cards[0].registers.size(), 1u);
    EXPECT_EQ(
        std::tuple(cards[0].id, cards[0].tunnel_address, cards[0].tunnel_port, cards[0].external_server),
        std::tuple(254, 0x0A010203u, 65535, true));
    EXPECT_EQ(cards[0].interfaces.at(1).ip_addr, "255.255.255.255");
    EXPECT_EQ(cards[1].interfaces.at(2).ip_addr, "127.0.0.1");
}

}  // namespace
