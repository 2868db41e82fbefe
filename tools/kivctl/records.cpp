#include "records.h"

#include <fmt/format.h>
#include <kiv/SystemMonitorData.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

#include "server.h"

namespace kivctl {

namespace {

/// In the order of kiv_card_status_t.
constexpr const char* kSensorNames[kSensorCount] = {"FPGA fabric", "Board near FPGA", "Board near CVL",
                                                    "Board rear",  "Board front",     "QSFP1 case",
                                                    "QSFP2 case"};

/// A percentage; one that is infinite or no number says nothing.
Json percent(double load) {
    return std::isfinite(load) ? Json(load) : Json();
}

}  // namespace

Json ports_json(const kiv_net_status_t& status) {
    const uint32_t up[] = {status.link_up_0, status.link_up_1};
    Json ports = Json::array();
    for (unsigned i = 0; i < 2; ++i) {
        ports.push_back({{"port", i},
                         {"link", up[i] != 0 ? "up" : "down"},
                         {"load_a_percent", percent(status.load_a[i])},
                         {"load_b_percent", percent(status.load_b[i])}});
    }
    return ports;
}

Json stream_json(const kiv_stream_status_t& status) {
    return {{"control", status.control},
            {"control_bit_25", status.control_bit_25},
            {"control_bit_26", status.control_bit_26},
            {"reg_404", status.reg_404},
            {"reg_804", status.reg_804},
            {"resources", {status.resource_0, status.resource_1, status.resource_2}}};
}

Json pci_link_json(unsigned width, unsigned generation) {
    return {
        {"text", fmt::format("x{} gen {}", width, generation)}, {"width", width}, {"generation", generation}};
}

std::string locking_text(int64_t status) {
    constexpr const char* kWords[] = {"not in use", "free run", "cold locking", "warm locking", "locked"};
    const bool known = status >= 0 && status < std::ssize(kWords);
    return known ? kWords[status] : "unknown (" + std::to_string(status) + ")";
}

Json locking_json(int32_t status) {
    return {{"text", locking_text(status)}, {"value", status}};
}

const char* sensor_name(std::size_t number) {
    return kSensorNames[number];
}

Json sensor_json(unsigned number, const kiv_sensor_t& sensor) {
    const auto limit = [](uint32_t value) { return value == 0 ? Json() : Json(static_cast<int32_t>(value)); };
    Json json{{"name", kSensorNames[number]},
              {"input", nullptr},
              {"max", limit(sensor.max)},
              {"critical", limit(sensor.critical)},
              {"state", "not reported"}};
    if (sensor.input == 0 && sensor.max == 0 && sensor.critical == 0) return json;
    const auto reached = [&](uint32_t value) {
        return value != 0 && static_cast<int32_t>(sensor.input) >= static_cast<int32_t>(value);
    };
    json["input"] = static_cast<int32_t>(sensor.input);
    json["state"] = reached(sensor.critical) ? "critical" : reached(sensor.max) ? "above max" : "ok";
    return json;
}

void leave_out_unreadable(const Json& report, Json& sensors) {
    const kiv::device::SystemMonitorData known;
    for (const Json& entry : report) {
        if (!entry.is_object() || !entry.contains("label") || !entry["label"].is_string() ||
            (entry.contains("input") && whole_number(entry["input"])))
            continue;
        const auto label = known.labels.find(entry["label"].get<std::string>());
        if (label == known.labels.end()) continue;
        Json& sensor = sensors[static_cast<std::size_t>(label->second)];
        sensor["input"] = nullptr;
        sensor["state"] = "not reported";
    }
}

Json report_json(const Json& report) {
    kiv::device::SystemMonitorData data;
    // What a card sends as text need not be text.
    if (!kiv::device::parse_json_to_struct_cpp(report.dump(-1, ' ', false, Json::error_handler_t::replace),
                                               data))
        throw Failure(Layer::Server, "SERVER_ANSWER", "the report of the sensors cannot be read");
    Json sensors = Json::array();
    for (unsigned i = 0; i < kSensorCount; ++i)
        sensors.push_back(sensor_json(i, data.sensors[i]));
    leave_out_unreadable(report, sensors);
    return {{"sensors", sensors}, {"board_power", power_json(data.board_power)}};
}

Json power_json(uint32_t power) {
    return power == 0 ? Json() : Json(static_cast<int32_t>(power));
}

bool is_alarm(const Json& sensor) {
    return sensor["state"] == "critical" || sensor["state"] == "above max";
}

}  // namespace kivctl
