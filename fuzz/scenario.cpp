// The simulator's files and its control address.
//
// Input: texts between lines of two dashes. The first is a cards file or scenario, which is read and run; the
// others are requests to the control address: method, path and body.
#include <algorithm>
#include <cmath>
#include <sstream>

#include "card/VirtualCard.h"
#include "input.h"
#include "scenario/Scenario.h"
#include "scenario/Timeline.h"
#include "settings/control.h"
#include "support/TemporaryDirectory.h"

namespace {

using fuzz::expect;

using Cards = std::vector<std::shared_ptr<kivsim::VirtualCard>>;

kivsim::Answer ask(const Cards& cards, const std::string& method, const std::string& path,
                   const std::string& body = "") {
    return answer_control(cards, {method, path, body, {}});
}

Cards cards_of(const kivsim::Scenario& scenario) {
    Cards cards;
    for (const kivsim::CardSettings& settings : scenario.cards)
        cards.push_back(std::make_shared<kivsim::VirtualCard>(settings));
    return cards;
}

const std::string& path() {
    static const TemporaryDirectory directory;
    static const std::string file = directory / "cards.json";
    return file;
}

kivsim::Scenario load(const std::string& text) {
    write_file(path(), text);
    return kivsim::load_scenario(path());
}

/// The present state is a cards file, and one that says the same.
void expect_settings_survive(const Cards& cards) {
    const std::string settings = ask(cards, "GET", "/settings").body;
    const Cards again = cards_of(load(settings));
    expect(ask(again, "GET", "/settings").body == settings, "the settings are a cards file");
}

void run(const kivsim::Scenario& scenario, const Cards& cards) {
    std::size_t lines = 0;
    kivsim::Timeline timeline(scenario, cards, [&](const std::string& line) {
        expect(!line.empty(), "a step says something");
        ++lines;
    });
    double time = 0;
    for (int turn = 0; turn < 40 && std::isfinite(timeline.next_time()); ++turn) {
        expect(timeline.next_time() >= time, "time does not go back");
        // Between the steps too, where ramps are under way.
        time = turn % 2 == 0 ? (time + timeline.next_time()) / 2 : timeline.next_time();
        try {
            timeline.advance_to(time);
        } catch (const kivsim::BadConfig&) {  // Of a third round: two were rehearsed.
        }
    }
}

void request(const Cards& cards, const std::string& text) {
    std::istringstream words(text);
    std::string method;
    std::string where;
    words >> method >> where;
    std::string body;
    std::getline(words, body, '\0');
    const kivsim::Answer answer = ask(cards, method, where, body);
    expect(answer.status == 200 || answer.status == 400 || answer.status == 404,
           "the control gives its codes");
    expect(!answer.body.empty(), "the control says why");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::vector<std::string> parts = fuzz::parts_of(fuzz::text_of(data, size));
    kivsim::Scenario scenario{{kivsim::believable_card(1)}};
    try {
        if (!parts[0].empty()) scenario = load(parts[0]);
    } catch (const kivsim::BadConfig& error) {
        expect(std::string(error.what()).starts_with(path() + ": "), "a complaint names the file");
        if (parts.size() == 1) return 0;
    }
    // Each card takes descriptors.
    if (scenario.cards.size() > 16) return 0;
    const Cards cards = cards_of(scenario);
    expect_settings_survive(cards);
    run(scenario, cards);
    for (std::size_t i = 1; i < parts.size(); ++i)
        request(cards, parts[i]);
    expect_settings_survive(cards);
    return 0;
}
