#include "settings/cards_file.h"

#include <fstream>
#include <iterator>
#include <set>

#include "settings/members.h"

namespace kivsim {

namespace {

std::string text_of_file(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw BadConfig(path + ": cannot be opened");
    try {
        return {std::istreambuf_iterator<char>(file), {}};
    } catch (const std::exception& error) {  // A directory.
        throw BadConfig(path + ": " + error.what());
    }
}

}  // namespace

std::vector<CardSettings> load_cards(const std::string& path) {
    const ConfigNode top(text_of_file(path), path);
    std::vector<CardSettings> cards;
    top.members({"cards"});
    std::set<uint8_t> ids;
    top.at("cards").each([&](const ConfigNode& item) {
        cards.push_back(card_of(item));
        if (!ids.insert(cards.back().id).second) item.at("id").complain("is another card's");
    });
    return cards;
}

}  // namespace kivsim
