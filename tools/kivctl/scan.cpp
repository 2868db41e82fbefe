// The cards of this machine, also those that cannot be used.
#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <nlohmann/json.hpp>
#include <vector>

#include "cards.h"
#include "commands.h"

namespace kivctl {

namespace {

Json to_json(const Found& card) {
    const bool usable = card.result == KIV_OK;
    const auto port = [&](unsigned number, uint32_t address) -> Json {
        return {{"port", number}, {"ip_address", usable ? Json(dotted(address)) : Json()}};
    };
    return {{"card", card.device.device_id},
            {"usable", usable},
            {"card_word", usable ? Json(hex64(card.device.card_word)) : Json()},
            {"ports", {port(0, card.device.ip_address_0), port(1, card.device.ip_address_1)}},
            {"server", server_of(card).address()},
            {"error", nullptr}};
}

}  // namespace

Exit scan(const Request& request, Output& output) {
    const std::vector<Found> cards = scan_cards();
    // Asking a server that does not answer takes its time: all at once.
    std::vector<std::future<Failure>> problems;
    for (const Found& card : cards) {
        if (card.result != KIV_OK) problems.push_back(std::async(std::launch::async, problem_of, card));
    }
    Json json = document("scan");
    json["complete"] = problems.empty();
    json["cards"] = Json::array();
    auto problem = problems.begin();
    for (const Found& card : cards) {
        json["cards"].push_back(to_json(card));
        if (card.result == KIV_OK) continue;
        const Failure failure = (problem++)->get();
        json["cards"].back()["error"] = failure.json();
        if (!request.json) Output::note(failure.text());
    }
    if (request.json) {
        output.print_json(json);
    } else if (!cards.empty()) {
        std::vector<std::vector<std::string>> rows{
            {"ID", "CARD WORD", "PORT 0", "PORT 1", "SERVER", "STATE"}};
        for (const Json& card : json["cards"]) {
            rows.push_back({text_of(card["card"]), text_of(card["card_word"]),
                            text_of(card["ports"][0]["ip_address"]), text_of(card["ports"][1]["ip_address"]),
                            text_of(card["server"]), card["usable"] ? "ok" : "cannot be used"});
        }
        output.print_table(rows);
        if (!problems.empty())
            output.print(fmt::format("PARTIAL: {} of {} cards can be used\n", cards.size() - problems.size(),
                                     cards.size()));
    }
    return problems.empty() ? kDone : kFailed;
}

}  // namespace kivctl
