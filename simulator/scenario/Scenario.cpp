#include "scenario/Scenario.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "card/VirtualCard.h"
#include "scenario/Timeline.h"
#include "settings/members.h"

namespace kivsim {

namespace {

constexpr double kLongest = 1'000'000;  // Seconds, of any time.

std::string text_of_file(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw BadConfig(path + ": cannot be opened");
    try {
        return {std::istreambuf_iterator<char>(file), {}};
    } catch (const std::exception& error) {  // A directory.
        throw BadConfig(path + ": " + error.what());
    }
}

std::vector<CardSettings> cards_of(const ConfigNode& node) {
    std::vector<CardSettings> cards;
    std::set<uint8_t> ids;
    node.each([&](const ConfigNode& item) {
        cards.push_back(card_of(item));
        if (!ids.insert(cards.back().id).second) item.at("id").complain("is another card's");
    });
    return cards;
}

Step step_of(const ConfigNode& node, const std::vector<CardSettings>& cards) {
    std::vector<const char*> keys = action_keys();
    keys.insert(keys.end(), {"at_s", "card", "for_s"});
    node.members(keys);
    const Action& action = action_of(node);
    Step step{node.at("at_s").real(0, kLongest), node.at("card").number<uint8_t>(), &action,
              node.at(action.key)};
    if (std::none_of(cards.begin(), cards.end(), [&](const auto& card) { return card.id == step.card; }))
        node.at("card").complain("is no card of this file");
    if (step.what.json().is_object() && step.what.has("over_s"))
        step.over_s = step.what.at("over_s").real(0, kLongest);
    if (!node.has("for_s")) return step;
    if (!action.lasts) node.at("for_s").complain("is not for what cannot be undone");
    step.for_s = node.at("for_s").real(0, kLongest);
    if (*step.for_s < step.over_s) node.at("for_s").complain("must be at least \"over_s\" of the ramp");
    return step;
}

void read_timeline(const ConfigNode& node, Scenario& scenario) {
    node.each([&](const ConfigNode& item) { scenario.timeline.push_back(step_of(item, scenario.cards)); });
    std::stable_sort(scenario.timeline.begin(), scenario.timeline.end(),
                     [](const Step& a, const Step& b) { return a.at_s < b.at_s; });
}

/// When all of a period is over.
double end_of(const std::vector<Step>& timeline) {
    double end = 0;
    for (const Step& step : timeline)
        end = std::max(end, step.at_s + step.for_s.value_or(step.over_s));
    return end;
}

/// Runs the timeline on cards that nobody sees: twice, as a second round may meet what the first one has
/// left.
void rehearse(const Scenario& scenario) {
    std::map<uint8_t, Scenario> parts;  // Cards know nothing of each other, and each takes descriptors.
    for (const CardSettings& card : scenario.cards)
        parts[card.id].cards = {card};
    for (const Step& step : scenario.timeline)
        parts.at(step.card).timeline.push_back(step);
    for (auto& [id, part] : parts) {
        if (part.timeline.empty()) continue;
        part.loop_s = scenario.loop_s;
        Timeline timeline(part, {std::make_shared<VirtualCard>(part.cards[0])}, [](const std::string&) {});
        timeline.advance_to(scenario.loop_s ? 2 * *scenario.loop_s : end_of(part.timeline));
    }
}

}  // namespace

Scenario load_scenario(const std::string& path) {
    const ConfigNode top(text_of_file(path), path);
    top.members({"cards", "timeline", "speed", "loop_s"});
    Scenario scenario{cards_of(top.at("cards"))};
    if (top.has("timeline")) read_timeline(top.at("timeline"), scenario);
    if (top.has("speed")) scenario.speed = top.at("speed").real(kLeastSpeed, kGreatestSpeed);
    if (top.has("loop_s")) {
        scenario.loop_s = top.at("loop_s").real(1, kLongest);
        if (*scenario.loop_s < end_of(scenario.timeline))
            top.at("loop_s").complain("must not be before the end of every step");
    }
    rehearse(scenario);
    return scenario;
}

}  // namespace kivsim
