#include <kiv/SystemMonitorData.h>

#include <iostream>
#include <iterator>

#include <kiv/kiv_json.h>
#include "base/jsonText.h"

namespace kiv::device {

namespace {

using Json = nlohmann::ordered_json;

uint32_t integer_or_zero(const Json& element, const char* key) {
    const auto found = element.find(key);
    return found != element.end() && found->is_number_integer() ? found->get<uint32_t>() : 0;
}

void read_element(const Json& element, SystemMonitorData& out) {
    if (!element.is_object() || !element.contains("label")) return;
    const auto label = element.at("label").get<std::string>();
    if (label == "Board Power") {
        const auto input = element.find("input");
        if (input != element.end() && input->is_number_integer()) out.board_power = input->get<uint32_t>();
        return;
    }
    const auto known = out.labels.find(label);
    if (known == out.labels.end()) return;
    kiv_sensor_t& sensor = out.sensors[known->second];
    sensor.input = integer_or_zero(element, "input");
    sensor.critical = integer_or_zero(element, "critical");
    sensor.max = integer_or_zero(element, "max");
}

}  // namespace

// clang-format off
SystemMonitorData::SystemMonitorData() : sensors{}, board_power(0), labels{
    {"FPGA FABRIC Digital Temperature #5", KIV_SENSOR_FPGA_FABRIC},
    {"Board Top Near FPGA Temperature",    KIV_SENSOR_BOARD_TOP},
    {"Board Bottom Near CVL Temperature",  KIV_SENSOR_BOARD_BOTTOM},
    {"Board Rear Side Temperature",        KIV_SENSOR_BOARD_REAR},
    {"Board Front Side Temperature",       KIV_SENSOR_BOARD_FRONT},
    {"QSFP1 Case Temperature",             KIV_SENSOR_QSFP1},
    {"QSFP2 Case Temperature",             KIV_SENSOR_QSFP2},
} {}
// clang-format on

bool parse_json_to_struct_cpp(const std::string& json, SystemMonitorData& out) {
    try {
        for (kiv_sensor_t& sensor : out.sensors)
            sensor = {};
        const Json root = kiv::json::parse(json);
        if (!root.is_array()) {
            std::cerr << "Error: JSON root is not an array." << std::endl;
            return false;
        }
        for (const Json& element : root)
            read_element(element, out);
        return true;
    } catch (const Json::exception& error) {
        std::cerr << "JSON Parsing/Access Error: " << error.what() << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "An unexpected error occurred: " << error.what() << std::endl;
    }
    return false;
}

}  // namespace kiv::device
