#include "scenario/actions.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "card/VirtualCard.h"
#include "settings/changes.h"
#include "settings/faults.h"
#include "settings/members.h"

namespace kivsim {

namespace {

constexpr double kGreatestNumber = 1e15;  // Whole numbers up to it are exact.

void begin_change(VirtualCard& card, Deed& deed, const ConfigNode& members) {
    changed_card(members, card.settings);  // Places are those of members that are good.
    for (const std::string& place : places_of(members))
        deed.changes.push_back({place, value_at(card, place).value(), ""});
    change(card, members);
    for (Change& entry : deed.changes)
        entry.after = value_at(card, entry.place).value();
}

void begin_patch(VirtualCard& card, Deed& deed) {
    begin_change(card, deed, deed.step->what);
}

void clear_faults(VirtualCard& card, Deed& deed) {
    if (!deed.step->what.boolean()) deed.step->what.complain("can only be true");
    begin_change(card, deed, ConfigNode(R"({"http_faults": [], "driver_faults": []})", ""));
}

template <auto faults, auto fault_of>
void add_fault(VirtualCard& card, Deed& deed) {
    (card.settings.*faults).push_back(fault_of(deed.step->what));
}

/// Faults have no names: the last that says the same goes, if there is one.
template <auto faults, auto fault_of>
void remove_fault(VirtualCard& card, const Step& step) {
    const std::string own = text_of(json_of(fault_of(step.what)));
    auto& all = card.settings.*faults;
    const auto found = std::find_if(all.rbegin(), all.rend(),
                                    [&](const auto& fault) { return text_of(json_of(fault)) == own; });
    if (found != all.rend()) all.erase(std::next(found).base());
}

void begin_messages(VirtualCard& card, Deed& deed) {
    send_messages(card, deed.step->what);
}

/// The number at a place; nothing where there is none. The PTP state is a name.
std::optional<double> number_at(VirtualCard& card, const std::string& place) {
    const Json value = parse_json(value_at(card, place).value_or("null"));
    uint64_t number = 0;
    if (value.is_number() && place != "/ptp_state") return value.get<double>();
    if (value.is_string() && ConfigNode::parse(value.get<std::string>(), number))
        return static_cast<double>(number);
    return std::nullopt;
}

bool is_whole(double number) {
    return std::nearbyint(number) == number && std::abs(number) < 0x1p63;
}

void begin_ramp(VirtualCard& card, Deed& deed) {
    const ConfigNode& ramp = deed.step->what;
    ramp.members({"member", "to", "over_s"});
    ramp.at("over_s");  // Must be there; the step has it.
    const std::string place = ramp.at("member").text();
    const double to = ramp.at("to").real(-kGreatestNumber, kGreatestNumber);
    const std::optional<double> from = number_at(card, place);
    if (!from) ramp.at("member").complain("is no number of the card");
    if (place.starts_with("/registers/") && to > std::numeric_limits<uint32_t>::max())
        ramp.at("to").complain("must be at most 4294967295 for a register");
    const std::string value = value_at(card, place).value();
    deed.changes = {{place, value, value}};
    deed.from = *from;
    deed.ramping = true;
}

// clang-format off
constexpr Action kActions[] = {
    {"patch",        true,  begin_patch,    nullptr},
    {"ramp",         true,  begin_ramp,     nullptr},
    {"http_fault",   true,  add_fault<&CardSettings::http_faults, http_fault_of>,     remove_fault<&CardSettings::http_faults, http_fault_of>},
    {"driver_fault", true,  add_fault<&CardSettings::driver_faults, driver_fault_of>, remove_fault<&CardSettings::driver_faults, driver_fault_of>},
    {"clear_faults", true,  clear_faults,   nullptr},
    {"messages",     false, begin_messages, nullptr},
};
// clang-format on

}  // namespace

const Action& action_of(const ConfigNode& step) {
    const auto named = [&](const Action& action) { return step.has(action.key); };
    if (std::count_if(std::begin(kActions), std::end(kActions), named) != 1) {
        std::string keys;
        for (const char* const key : action_keys())
            keys += (keys.empty() ? "\"" : ", \"") + std::string(key) + "\"";
        step.complain("must have just one of " + keys);
    }
    return *std::find_if(std::begin(kActions), std::end(kActions), named);
}

std::vector<const char*> action_keys() {
    std::vector<const char*> keys;
    for (const Action& action : kActions)
        keys.push_back(action.key);
    return keys;
}

void ramp_on(VirtualCard& card, Deed& deed, double part) {
    const ConfigNode& ramp = deed.step->what;
    Change& change = deed.changes.front();
    if (!number_at(card, change.place)) ramp.at("member").complain("is no number of the card any more");
    const double to = ramp.at("to").json().get<double>();
    const double value = std::lerp(deed.from, to, part);
    const bool whole = is_whole(deed.from) && is_whole(to);
    const std::string text = text_of(whole ? Json(std::llround(value)) : Json(value));
    if (text == change.after) return;
    set_at(card, change.place, text, ramp.way());
    change.after = value_at(card, change.place).value();
}

}  // namespace kivsim
