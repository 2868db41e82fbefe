#include "endpoints.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace kivsim {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kBase = "/api/v1.0";

struct Row {
    const char* method;
    const char* path;  ///< Below the base path.
    Json (*payload)(VirtualCard&);
};

Json networks(VirtualCard& card) {
    Json list = Json::array();
    for (const InterfaceSettings& entry : card.interfaces) {
        list.push_back({{"if_name", entry.if_name},
                        {"ip_addr", entry.ip_addr},
                        {"netmask", entry.netmask},
                        {"hw_addr", entry.hw_addr}});
    }
    return {{"interfaces", list}};
}

Json hwmon(VirtualCard&) {
    struct Sensor {
        const char* label;
        int input;
        int max;
        int critical;
    };
    // clang-format off
    constexpr Sensor kSensors[] = {
        {"FPGA FABRIC Digital Temperature #5", 58, 95, 100},
        {"Board Top Near FPGA Temperature",    47, 75, 85},
        {"Board Bottom Near CVL Temperature",  45, 75, 85},
        {"Board Rear Side Temperature",        39, 70, 80},
        {"Board Front Side Temperature",       36, 70, 80},
        {"QSFP1 Case Temperature",             41, 70, 75},
        {"QSFP2 Case Temperature",             42, 70, 75},
    };
    // clang-format on
    Json list = Json::array();
    for (const Sensor& sensor : kSensors) {
        list.push_back({{"label", sensor.label},
                        {"input", sensor.input},
                        {"max", sensor.max},
                        {"critical", sensor.critical}});
    }
    list.push_back({{"label", "Board Power"}, {"input", 63}, {"max", 75}});
    return list;
}

constexpr Row kRows[] = {
    {"GET", "/hps/info/networks", networks},
    {"GET", "/hps/hwmon/info", hwmon},
};

}  // namespace

Answer answer_request(VirtualCard& card, const std::string& method, const std::string& path,
                      const std::string&) {
    const auto row = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& candidate) {
        return method == candidate.method && path == std::string(kBase) + candidate.path;
    });
    if (row == std::end(kRows)) return {404, Json{{"error", "no such resource"}}.dump()};
    const std::lock_guard lock(card.mutex);
    return {200, Json{{"data", row->payload(card)}}.dump()};
}

}  // namespace kivsim
