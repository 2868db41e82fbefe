// The card's flash: two slots, each with a firmware image.
#include "flash.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "commands.h"
#include "guard.h"

namespace kivctl {

namespace {

Failure odd_answer(const Server& server, const std::string& what) {
    return {Layer::Server, "SERVER_ANSWER", server.url() + ": " + what,
            "see whether the card's processor has started; \"kivctl doctor\" looks at it"};
}

/// What is read of a card's server fails as the card's.
template <typename Read>
auto of_card(const Found& card, Read read) try {
    return read(server_of(card));
} catch (const Failure& failure) {
    throw failure.of_card(card.device.device_id);
}

}  // namespace

FlashSlots read_slots(const Server& server) {
    constexpr std::string_view kMark = "[Next Boot Image]";
    const Json info = server.get("/hps/firmware/info");
    FlashSlots slots;
    int marked = 0;
    for (int i = 0; i < 2; ++i) {
        const char* const key = i == 0 ? "User1" : "User2";
        if (!info.is_object() || !info.contains(key) || !info[key].is_string())
            throw odd_answer(server, fmt::format("does not tell the image of slot {}", i));
        std::string image = info[key].get<std::string>();
        if (image.ends_with(kMark)) {
            slots.next_boot = marked++ == 0 ? std::optional(i) : std::nullopt;
            image.resize(image.size() - kMark.size());
            image.erase(image.find_last_not_of(" \t") + 1);
        }
        slots.image[static_cast<std::size_t>(i)] = image;
    }
    slots.both_marked = marked == 2;
    return slots;
}

std::string read_state(const Server& server) {
    const Json word = server.get("/hps/firmware/status");
    if (!word.is_string() || word.get_ref<const std::string&>().empty())
        throw odd_answer(server, "has no word for the state of the flash");
    return word.get<std::string>();
}

FlashSlots read_slots(const Found& card) {
    return of_card(card, [](const Server& server) { return read_slots(server); });
}

std::string read_state(const Found& card) {
    return of_card(card, [](const Server& server) { return read_state(server); });
}

Json state_json(const std::string& word) {
    return {{"state", word == "idle" ? "idle" : "busy"}, {"phase", word}};
}

bool says_failure(const std::string& word) {
    constexpr const char* kBad[] = {"fail",    "error",    "abort",   "cancel",
                                    "invalid", "mismatch", "timeout", "corrupt"};
    constexpr std::string_view kNone[] = {"no", "without", "0", "zero", "none"};
    std::vector<std::string> words(1);
    for (const char letter : word) {
        if (std::isalnum(static_cast<unsigned char>(letter)) != 0) {
            words.back() += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    const auto denies = [&](std::size_t at) {
        return at < words.size() &&
               std::find(std::begin(kNone), std::end(kNone), words[at]) != std::end(kNone);
    };
    for (std::size_t i = 0; i < words.size(); ++i) {
        const bool bad = std::any_of(std::begin(kBad), std::end(kBad),
                                     [&](const char* start) { return words[i].starts_with(start); });
        if (bad && !denies(i + 1) && (i == 0 || !denies(i - 1))) return true;
    }
    return false;
}

void add_to(Json& json, const FlashSlots& slots) {
    json["slots"] = slots.image;
    json["next_boot_slot"] = slots.next_boot ? Json(*slots.next_boot) : Json();
}

void select_slot(const Found& card, int slot) {
    const uint8_t id = card.device.device_id;
    const kiv_flash_slot_t wanted = slot;
    check(kiv_select_flash_slot(id, &wanted), "choosing the slot to boot", id);
    const FlashSlots slots = read_slots(card);
    if (slots.next_boot == slot) return;
    throw Failure(
        Layer::Card, "NOT_SELECTED",
        fmt::format("card {} took the choice of slot {}, but says that it boots {} next", id, slot,
                    slots.next_boot ? "slot " + std::to_string(*slots.next_boot) : "none of the two"))
        .of_card(id);
}

Exit flash(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Server);
    const FlashSlots slots = read_slots(card);
    const std::string word = read_state(card);
    Json json = document("flash");
    json["card"] = card.device.device_id;
    add_to(json, slots);
    json.update(state_json(word));
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table({{"Slot 0", text_of(json["slots"][0])},
                            {"Slot 1", text_of(json["slots"][1])},
                            {"Next boot slot", text_of(json["next_boot_slot"])},
                            {"State", word == "idle" ? word : "busy: " + printable(word)}});
    }
    if (slots.both_marked) Output::note("the card marks both slots as the one to boot next");
    return kDone;
}

Options flash_select_options(Request& request) {
    return {{number_option("SLOT", "Slot of the flash", "0|1", 0, 1, request.select)}};
}

Exit flash_select(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Server);
    const uint8_t id = card.device.device_id;
    const int slot = static_cast<int>(*request.select);
    guard().also_say("the card may have taken the choice: see \"kivctl flash\"");
    select_slot(card, slot);
    if (request.json) {
        Json json = document("flash-select");
        json["card"] = id;
        json["next_boot_slot"] = slot;
        output.print_json(json);
    } else {
        output.print(fmt::format("card {} boots slot {} next\n", id, slot));
    }
    return kDone;
}

}  // namespace kivctl
