// What the card's texts become: addresses, masks, firmware identifiers, sensor values.
#include <kiv/SystemMonitorData.h>
#include "base/addressText.h"
#include "base/ipText.h"

#include "support/Test.h"

namespace {

using namespace kiv::device;

TEST(AddressText, AFaultyAddressIsZeroWithAMessageUnlessItsDotsAreWrong) {
    const std::tuple<const char*, uint32_t, const char*> rows[] = {
        {"192.168.0.1", 0xC0A80001u, ""},
        {"255.255.255.255", 0xFFFFFFFFu, ""},
        {"10.0.0.1.5", 0, ""},
        {"10..0.1", 0, "Error: Failed to read octet.\n"},
        {"10.0.0.256", 0, "Error: Octet value out of range (0-255).\n"},
        {"10x.0.0.1", 0, "Error: Expected dot separator.\n"},
        {"10.0.0.1 ", 0, "Error: Extra characters found after the address.\n"},
    };
    for (const auto& [text, address, message] : rows) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(ip_string_to_uint32(text), address) << text;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message) << text;
    }
    EXPECT_EQ(uint32ToIp(0xC0A80001u), "192.168.0.1");
}

TEST(AddressText, AMaskIsACountOfBitsWhereverTheyAre) {
    EXPECT_EQ(bitCountToNetmask(-1), "0.0.0.0");
    EXPECT_EQ(bitCountToNetmask(23), "255.255.254.0");
    EXPECT_EQ(bitCountToNetmask(33), "255.255.255.255");
    EXPECT_EQ(netmaskToBitCount("255.255.254.0"), 23);
    EXPECT_EQ(netmaskToBitCount("255.0.255.0"), 16);
    EXPECT_THROW(netmaskToBitCount("255.x.0.0"), std::invalid_argument);
}

/// "high low flag" of the identifier, or what the error says.
std::string identified(const std::string& text) {
    try {
        const auto [high, low, flag] = parse_hex_string_with_flag(text);
        return std::to_string(high) + " " + std::to_string(low) + (flag ? " next" : "");
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(FirmwareIdentifier, IsThirtyTwoDigitsAndTheNextBootMarker) {
    const std::string digits = "000000000000000Ffffffffffffffffe";
    const std::string length =
        "Invalid format: Hex string must be exactly 32 characters long after removing the flag.";
    EXPECT_EQ(identified(digits), "15 18446744073709551614");
    EXPECT_EQ(identified(digits + " \t\r\n [Next Boot Image]"), "15 18446744073709551614 next");
    for (const std::string& text : {digits + "f", digits + " ", digits + "[Next Boot Image] "})
        EXPECT_EQ(identified(text), length) << text;
    EXPECT_EQ(identified(digits.substr(1) + "g"), "Conversion failed: Invalid characters in hex string.");
}

/// "input/max/critical" of each sensor and the board's power.
std::string shown(const SystemMonitorData& data) {
    std::string text;
    for (const kiv_sensor_t& sensor : data.sensors)
        text += std::to_string(sensor.input) + "/" + std::to_string(sensor.max) + "/" +
                std::to_string(sensor.critical) + " ";
    return text + std::to_string(data.board_power);
}

TEST(SystemMonitorData, TakesIntegersOfKnownLabelsAndKeepsWhatAFaultyReportGave) {
    SystemMonitorData data;
    EXPECT_TRUE(parse_json_to_struct_cpp(R"([7, null, [], {"input": 1}, {"label": "QSFP2 case", "input": 70},
        {"label": "QSFP2 Case Temperature", "input": 70, "max": 71, "critical": 72},
        {"label": "QSFP1 Case Temperature", "input": 60.5, "max": "61", "critical": true},
        {"label": "Board Front Side Temperature", "input": -5, "max": 4294967297, "critical": null},
        {"label": "Board Rear Side Temperature", "input": 40}, {"label": "Board Power", "input": 80},
        {"label": "Board Bottom Near CVL Temperature", "input": 30, "max": 31, "critical": 32},
        {"label": "Board Top Near FPGA Temperature", "input": 20, "max": 21, "critical": 22},
        {"label": "FPGA FABRIC Digital Temperature #5", "input": 10, "max": 11, "critical": 12}])",
                                         data));
    EXPECT_EQ(shown(data), "10/11/12 20/21/22 30/31/32 40/0/0 4294967291/1/0 0/0/0 70/71/72 80");
    const std::string too_deep = std::string(100'000, '[') + std::string(100'000, ']');
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse_json_to_struct_cpp(too_deep, data));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "An unexpected error occurred: more than 100 levels\n");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse_json_to_struct_cpp("{}", data));
    EXPECT_FALSE(parse_json_to_struct_cpp(
        R"([{"label": "QSFP2 Case Temperature", "max": 7}, {"label": "Board Power"}, {"label": 8}])", data));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.find("Error: JSON root is not an array.\nJSON Parsing/Access Error: "), 0u) << said;
    EXPECT_TRUE(has(said, "type_error")) << "the rest is the JSON library's: " << said;
    EXPECT_EQ(shown(data), "0/0/0 0/0/0 0/0/0 0/0/0 0/0/0 0/0/0 0/7/0 80");
}

}  // namespace
