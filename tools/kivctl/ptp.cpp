// PTP settings and state.
#include <iterator>
#include <nlohmann/json.hpp>

#include "cards.h"
#include "commands.h"
#include "records.h"
#include "time_text.h"

namespace kivctl {

namespace {

/// Where a value comes from.
constexpr const char* kCard = "card";
constexpr const char* kProcess = "process";
constexpr const char* kFile = "file";

struct Line {
    const char* group;
    const char* key;
    const char* text;
    const char* source;
};

// clang-format off
constexpr Line kLines[] = {
    {"settings", "announce_receipt_timeout", "Announce receipt timeout",   kFile},
    {"settings", "domain",                   "Domain",                     kFile},
    {"settings", "log_announce_interval",    "Log announce interval",      kFile},
    {"settings", "log_delay_req_interval",   "Log delay request interval", kFile},
    {"settings", "unicast_delay_req",        "Unicast delay requests",     kFile},
    {"settings", "tos",                      "TOS of port 0, port 1",      kFile},
    {"settings", "ttl",                      "TTL of port 0, port 1",      kFile},
    {"state",    "master_locking",           "Locking of the master",      kCard},
    {"state",    "register_state",           "State in the register",      kCard},
    {"state",    "time",                     "Time",                       kCard},
    {"state",    "utc_offset",               "TAI-UTC, s",                 kCard},
    {"state",    "utc_offset_valid",         "TAI-UTC is valid",           kCard},
    {"state",    "grandmaster",              "Grandmaster",                kCard},
    {"state",    "selected_source",          "Selected as PTP source",     kProcess},
};
// clang-format on

/// Whether the card is the selected PTP source; null when the library does not tell.
Json selected_source(uint8_t id) {
    uint8_t source = 0;
    return kiv_get_id_selected_ptp_card(&source) == KIV_OK ? Json(source == id) : Json();
}

Json ask_locking(const Server& server) {
    try {
        return locking_json(server.get_number("/hps/ptp/management", "masterLockingStatus"));
    } catch (const Failure& failure) {
        Output::note(failure.text());
        return nullptr;  // The rest is worth showing.
    }
}

Json state_json(const Found& card) {
    constexpr uint32_t kUntouched = UINT32_MAX;
    const uint8_t id = card.device.device_id;
    kiv_ptp_status_t status{};
    status.state = kUntouched;
    check(kiv_get_ptp_status(id, &status), "asking for its PTP state", id);
    const auto offset = static_cast<int32_t>(status.master_value);
    const bool valid = status.is_master != 0;
    return {{"master_locking", ask_locking(server_of(card))},
            {"register_state", status.state == kUntouched ? Json() : Json(status.state)},
            {"time", tai_json(status.tai_time, valid ? std::optional(offset) : std::nullopt)},
            {"utc_offset", offset},
            {"utc_offset_valid", valid},
            {"grandmaster", hex64(status.clock_identity)},
            {"selected_source", selected_source(id)}};
}

/// Null for every setting when the configuration was not loaded.
Json settings_json(uint8_t id) {
    Json settings = to_json(ptp_settings(id));
    if (configuration_problem()) {
        for (auto& [key, value] : settings.items())
            value = nullptr;
    }
    return settings;
}

}  // namespace

Exit ptp(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Server);
    Json json = document("ptp");
    json["card"] = card.device.device_id;
    json["settings"] = settings_json(card.device.device_id);
    json["state"] = state_json(card);
    for (const Line& line : kLines)
        json["sources"][line.group][line.key] = line.source;
    if (request.json) {
        output.print_json(json);
    } else {
        std::vector<std::vector<std::string>> rows{{"", "VALUE", "FROM"}};
        for (const Line& line : kLines)
            rows.push_back({line.text, text_of(json[line.group][line.key]), line.source});
        output.print_table(rows);
    }
    if (configuration_problem()) Output::note(configuration_problem()->text());
    return kDone;
}

}  // namespace kivctl
