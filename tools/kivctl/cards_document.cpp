#include "cards_document.h"

#include <algorithm>
#include <initializer_list>

#include "output.h"
#include "records.h"
#include "time_text.h"

namespace kivctl {

namespace {

Json age(const Stamp& now, const std::optional<Stamp>& then) {
    if (!then) return nullptr;
    const std::chrono::duration<double, std::milli> milliseconds = now.steady - then->steady;
    return static_cast<double>(static_cast<int64_t>(milliseconds.count())) / 1000;
}

Json moment(const std::optional<Stamp>& stamp) {
    return stamp ? Json(utc_text(stamp->wall)) : Json();
}

Json to_json(const Source& source, const Stamp& now) {
    return {{"ok", source.ok},
            {"last_success", moment(source.success)},
            {"age_s", age(now, source.success)},
            {"reason", source.reason.empty() ? Json() : Json(source.reason)}};
}

/// Of what is made of several parts: the first that is stale tells the age, or the first of all.
Json age_of(const CardValues& card, std::initializer_list<Part> parts, const Stamp& now) {
    const auto stale = [&](Part part) { return card.parts[part].stale; };
    const Part* const first = std::find_if(parts.begin(), parts.end(), stale);
    const Reading& reading = card.parts[first == parts.end() ? *parts.begin() : *first];
    return {{"age_s", age(now, reading.read)}, {"since", moment(reading.read)}, {"stale", reading.stale}};
}

/// A member of an object that may not have been read yet.
Json member(const Json& object, const char* key) {
    return object.is_null() ? Json() : object[key];
}

Json ptp_json(const CardValues& card) {
    const Json& clock = card.parts[kClock].value;
    const Json& master = card.parts[kMaster].value;
    Json json{{"master_locking", card.parts[kLocking].value},
              {"register_state", member(clock, "register_state")},
              {"time", nullptr}};
    if (!clock.is_null()) {
        const bool valid = member(master, "utc_offset_valid") == true;
        json["time"] = tai_json(clock["tai_ns"].get<uint64_t>(),
                                valid ? std::optional(master["utc_offset"].get<int32_t>()) : std::nullopt);
    }
    for (const char* const key : {"utc_offset", "utc_offset_valid", "grandmaster"})
        json[key] = member(master, key);
    const std::optional<int64_t> offset = card.offset_to_host();
    json["offset_to_host_ns"] = offset ? Json(std::to_string(*offset)) : Json();
    return json;
}

Json flash_json(const CardValues& card) {
    Json json;
    for (const char* const key : {"state", "phase"})
        json[key] = member(card.parts[kFlashState].value, key);
    for (const char* const key : {"slots", "next_boot_slot"})
        json[key] = member(card.parts[kSlots].value, key);
    return json;
}

Json to_json(const CardValues& card, const Stamp& now) {
    const Json sensors = member(card.parts[kSensorsOf].value, "sensors");
    return {{"card", card.id},
            {"state", card.is_there() ? "ok" : "lost"},
            {"attention", std::any_of(sensors.begin(), sensors.end(), is_alarm)},
            {"sensors", sensors},
            {"board_power", member(card.parts[kSensorsOf].value, "board_power")},
            {"pci_link", card.parts[kPciLink].value},
            {"ports", card.parts[kPorts].value},
            {"ptp", ptp_json(card)},
            {"flash", flash_json(card)},
            {"streams", card.parts[kStreams].value},
            {"sources", {{"driver", to_json(card.driver, now)}, {"server", to_json(card.server, now)}}},
            {"ages",
             {{"sensors", age_of(card, {kSensorsOf}, now)},
              {"board_power", age_of(card, {kSensorsOf}, now)},
              {"pci_link", age_of(card, {kPciLink}, now)},
              {"ports", age_of(card, {kPorts}, now)},
              {"ptp", age_of(card, {kClock, kLocking, kMaster}, now)},
              {"flash", age_of(card, {kFlashState, kSlots}, now)},
              {"streams", age_of(card, {kStreams}, now)}}}};
}

}  // namespace

Json cards_document(const Snapshot& snapshot) {
    Json json = document("cards");
    json["time"] = utc_text(snapshot.time.wall);
    json["sources"] = {{"driver", to_json(snapshot.driver, snapshot.time)},
                       {"configuration", to_json(snapshot.configuration, snapshot.time)}};
    json["cards"] = Json::array();
    for (const CardValues& card : snapshot.cards)
        json["cards"].push_back(to_json(card, snapshot.time));
    return json;
}

}  // namespace kivctl
