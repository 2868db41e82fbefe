// What the doctor checks before it looks at any card.
#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "configuration.h"
#include "doctor.h"
#include "driver_process.h"
#include "server.h"

namespace kivctl {

namespace {

Outcome configuration(Machine& machine) {
    const std::string path = configuration_path();
    machine.configuration = read_configuration(path);
    const std::vector<Finding> findings = check_configuration(path);
    if (findings.empty()) return {Result::Ok, path};
    const Finding& first = findings.front();
    const std::string others = findings.size() == 1 ? "" : fmt::format(" (and {} more)", findings.size() - 1);
    return {Result::Warn, path + ": " + first.text() + others,
            "\"kivctl config check\" lists all that is wrong"};
}

Outcome driver(Machine& machine) {
    const DriverProcess found = look_for_driver();
    machine.has_driver = found.found;
    if (found.found) return {Result::Ok, found.where};
    return {Result::Fail, fmt::format("no driver at {}: {}", found.where, found.problem), found.remedy};
}

Outcome services(Machine& machine, std::optional<uint8_t> only) {
    if (!machine.has_driver) return {Result::Skip, "there is no driver to ask"};
    machine.functions = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    const std::vector<uint8_t> ids = cards_of(machine.functions);
    if (ids.empty())
        return {Result::Fail, "no card: the driver has none",
                "see whether a card is in its slot and has power"};
    std::string list;
    for (const uint8_t id : ids)
        list += (list.empty() ? "" : ", ") + std::to_string(id);
    if (only && std::find(ids.begin(), ids.end(), *only) == ids.end())
        return {Result::Fail, fmt::format("no card {}: the driver has {}", *only, list),
                "\"kivctl scan\" lists the cards"};
    return {Result::Ok, fmt::format("{} functions; cards: {}", machine.functions.size(), list)};
}

}  // namespace

std::vector<uint8_t> cards_of(const kivDriverClientList& functions) {
    std::set<uint8_t> ids;
    for (const auto& function : functions)
        ids.insert(function->device_conf.device_index);
    return {ids.begin(), ids.end()};
}

std::vector<uint8_t> missing_cards(const Machine& machine) {
    const std::vector<uint8_t> there = cards_of(machine.functions);
    std::set<uint8_t> missing;
    if (!machine.configuration || there.empty()) return {};
    for (const Json& entry : (*machine.configuration)["devices"]) {
        const int32_t id = whole_number(entry["device_id"]).value_or(-1);
        if (id >= 0 && id <= UINT8_MAX) missing.insert(static_cast<uint8_t>(id));
    }
    for (const uint8_t id : there)
        missing.erase(id);
    return {missing.begin(), missing.end()};
}

std::vector<Step> machine_checks(Machine& machine, std::optional<uint8_t> only) {
    return {{"configuration", [&machine] { return configuration(machine); }},
            {"driver", [&machine] { return driver(machine); }},
            {"services", [&machine, only] { return services(machine, only); }}};
}

}  // namespace kivctl
