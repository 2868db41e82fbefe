#include "watch_events.h"

#include <fmt/format.h>

#include "device/statusRegister.h"
#include "output.h"
#include "records.h"

namespace kivctl {

namespace registers = kiv::registers;

std::optional<Sensors> sensors_of(const Server& server) try {
    Sensors sensors{Json::array(), ""};
    const Json report = report_json(server.get("/hps/hwmon/info"));
    for (const Json& sensor : report["sensors"]) {
        if (sensor["input"].is_null()) continue;
        sensors.list.push_back(sensor);
        if (!is_alarm(sensor)) continue;
        sensors.alarms += fmt::format("{}{} {} (max {}, critical {})", sensors.alarms.empty() ? "" : ", ",
                                      text_of(sensor["name"]), text_of(sensor["input"]),
                                      text_of(sensor["max"]), text_of(sensor["critical"]));
    }
    return sensors;
} catch (const Failure&) {
    return std::nullopt;  // That the server is lost is said elsewhere.
}

Described describe_state(uint64_t status, const std::optional<Sensors>& sensors, Known& known) {
    Described event{
        {{"event", "state"}, {"ports", Json::array()}, {"ptp_state", nullptr}, {"sensors", nullptr}}, ""};
    if (const auto links = describe_links(status, known)) {
        event.json["ports"] = links->json["ports"];
        event.add(links->text);
    }
    known.ptp_state = kiv::device::ptp_state(status);
    if (known.ptp_state) {
        event.json["ptp_state"] = *known.ptp_state;
        event.add(fmt::format("PTP state {}", *known.ptp_state));
    }
    if (sensors) {
        event.json["sensors"] = sensors->list;
        event.add(sensors->alarms.empty() ? "sensors ok" : sensors->alarms);
    }
    known.state = true;
    return event;
}

std::optional<Described> describe_links(uint64_t status, Known& known) {
    Described event{{{"event", "link"}, {"ports", Json::array()}}, ""};
    for (unsigned i = 0; i < 2; ++i) {
        const bool up = kiv::device::bit(status, i == 0 ? registers::kStatusLink0 : registers::kStatusLink1);
        const bool changed = known.link[i] != up;
        const char* const state = up ? "up" : "down";
        event.json["ports"].push_back({{"port", i}, {"changed", changed}, {"link", state}});
        if (changed) event.add(fmt::format("port {} {}", i, state));
        known.link[i] = up;
    }
    return event.text.empty() ? std::nullopt : std::optional(event);
}

/// As in the library's events, none is 0.
std::optional<Described> describe_ptp(uint64_t status, Known& known) {
    const uint32_t state = kiv::device::ptp_state(status).value_or(0);
    if (known.ptp_state.value_or(0) == state) return std::nullopt;
    known.ptp_state = state;
    return Described{{{"event", "ptp"}, {"ptp_state", state}}, fmt::format("state {}", state)};
}

std::optional<Described> describe_alarms(const std::optional<Sensors>& sensors) {
    if (!sensors || sensors->alarms.empty()) return std::nullopt;
    return Described{{{"event", "hwmon"}, {"sensors", sensors->list}}, sensors->alarms};
}

Described turn(const char* what, bool lost, const std::string& reason) {
    const char* const event = lost ? "lost" : "found";
    return {{{"event", event}, {"what", what}, {"reason", reason.empty() ? Json() : Json(reason)}},
            what + (reason.empty() ? "" : ": " + printable(reason))};
}

}  // namespace kivctl
