// The card configuration's file: what the model becomes, and what a text becomes.
#include <kiv/CardConfig.h>

#include "support/ConfigurationFile.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"

namespace {

using kiv::config::CardConfig;

/// The example's text with the first such piece replaced.
std::string with(const std::string& piece, const std::string& other,
                 std::string text = ConfigurationFile::sample()) {
    const std::size_t at = text.find(piece);
    if (at == std::string::npos) throw std::logic_error("not in the text: " + piece);
    return text.replace(at, piece.size(), other);
}

/// What the runtime error of `action` says; empty without one.
template <typename Action>
std::string failure(Action action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

class CardConfigFile : public testing::Test {
  protected:
    CardConfig load(const std::string& text) {
        write_file(path_, text);
        return CardConfig::load_from_file(path_);
    }

    std::string saved(const CardConfig& config) {
        config.save_to_file(path_);
        return read_file(path_);
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_ / "hps_boot.json";
};

TEST_F(CardConfigFile, TheModelIsWrittenByteForByteAndComesBack) {
    CardConfig config;
    config.version = 1;
    config.ptp = {3, 127, -2, -3, 1};
    config.devices = {{1, "KIV-1001", {"192.168.10.11", "255.255.255.0", 46, 64, -2147483647 - 1}, {}},
                      {2, "KIV-1002", {"192.168.10.12", "255.255.255.0", 46, 64, 0}, {}}};
    config.devices[0].maceth1 = {"192.168.20.11", "255.255.255.0", 46, 64, 0};
    config.devices[1].maceth1 = {"192.168.20.12", "255.255.255.0", 46, 64, 0};
    config.mactun = {"127.0.0.1", 80};
    const std::string text = with(R"("vlan_id": 0)", R"("vlan_id": -2147483648)",
                                  with(R"("unicast_delay_req": 0)", R"("unicast_delay_req": 1)"));
    EXPECT_EQ(saved(config), text);
    EXPECT_EQ(saved(load(text)), text);
    EXPECT_TRUE(saved({}).ends_with("\"ip_addr\": \"\",\n        \"server_port\": 0\n    }\n}\n"));
    EXPECT_TRUE(has(saved({}), "\n    \"devices\": [],\n    \"mactun\": {\n"));
}

TEST_F(CardConfigFile, OrderIsPutRightAndExtraKeysAreDropped) {
    const std::string text = with("{", R"({"mactun":{"extra":1,"server_port":80,"ip_addr":"127.0.0.1"},)");
    EXPECT_EQ(saved(load(with("\"mactun\": {", "\"extra\": {", text))), ConfigurationFile::sample());
}

TEST_F(CardConfigFile, AnyNumberBecomesThirtyTwoBits) {
    const std::pair<const char*, int32_t> rows[] = {
        {"-46.9", -46},       {"18446744073709551615", -1}, {"-1e30", -2147483647 - 1},
        {"1e30", 2147483647}, {"2147483647.9", 2147483647}, {"true", 1},
        {"false", 0},
    };
    for (const auto& [text, value] : rows)
        EXPECT_EQ(load(with("46", text)).devices[0].maceth0.tos, value) << text;
}

TEST_F(CardConfigFile, AFaultyDocumentIsRefusedWithTheReason) {
    // What the JSON library says is its own; its kinds of errors, and the keys, stay.
    const std::string document = "Error during JSON deserialization: ";
    const std::string parsing = "Error: JSON parsing failed in " + path_ + " - ";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {with(": 46", ": \"10\""), document, "type_error"},
        {with("\"127.0.0.1\"", "10"), document, "type_error"},
        {with("\"devices\": [", "\"devices\": {}, \"\": ["), document, "type_error"},
        {with("unicast_delay_req", ""), document, "unicast_delay_req"},
        {"[]", document, "type_error"},
        {with(": 46", ": 1e999"), document, "1e999"},
        {ConfigurationFile::sample() + "}", parsing, "parse_error"},
        {with("127.0.0.1", "\xFF"), parsing, "parse_error"},
        {std::string(300'000, '['), parsing, "more than 100 levels"},
    };
    for (const auto& [text, beginning, reason] : rows) {
        const std::string message = failure([this, &faulty = text] { load(faulty); });
        EXPECT_TRUE(message.starts_with(beginning)) << message;
        EXPECT_TRUE(has(message, reason));
    }
}

TEST_F(CardConfigFile, AFailedSaveNamesThePlaceOrLeavesTheFileAlone) {
    const std::string path = directory_ / "missing/hps_boot.json";
    EXPECT_EQ(failure([&] { CardConfig::load_from_file(path); }),
              "Error: Could not open JSON file for reading: " + path);
    EXPECT_EQ(failure([&] { CardConfig().save_to_file(path); }),
              "Error: Could not open JSON file for writing: " + path);
    CardConfig config = load(ConfigurationFile::sample());
    config.mactun.ip_addr = '\xFF';
    EXPECT_THROW(config.save_to_file(path_), std::runtime_error);
    EXPECT_EQ(read_file(path_), ConfigurationFile::sample());
}

}  // namespace
