// The card's flash: two slots, each with a firmware image.
#include "flash.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "guard.h"

namespace kivctl {

FlashSlots read_slots(const Server& server) {
    constexpr std::string_view kMark = "[Next Boot Image]";
    const Json info = server.get("/hps/firmware/info");
    FlashSlots slots;
    int marked = 0;
    for (int i = 0; i < 2; ++i) {
        const char* const key = i == 0 ? "User1" : "User2";
        if (!info.is_object() || !info.contains(key) || !info[key].is_string())
            throw Failure(Layer::Server, "SERVER_ANSWER",
                          server.url() + ": does not tell the image of slot " + std::to_string(i));
        std::string image = info[key].get<std::string>();
        if (image.ends_with(kMark)) {
            slots.next_boot = marked++ == 0 ? std::optional(i) : std::nullopt;
            image.resize(image.size() - kMark.size());
            image.erase(image.find_last_not_of(" \t") + 1);
        }
        slots.image[static_cast<std::size_t>(i)] = image;
    }
    return slots;
}

std::string read_state(const Server& server) {
    const Json word = server.get("/hps/firmware/status");
    if (!word.is_string() || word.get_ref<const std::string&>().empty())
        throw Failure(Layer::Server, "SERVER_ANSWER",
                      server.url() + ": has no word for the state of the flash");
    return word.get<std::string>();
}

void add_to(Json& json, const FlashSlots& slots) {
    json["slots"] = slots.image;
    json["next_boot_slot"] = slots.next_boot ? Json(*slots.next_boot) : Json();
}

void select_slot(const Found& card, int slot) {
    const uint8_t id = card.device.device_id;
    const kiv_flash_slot_t wanted = slot;
    check(kiv_select_flash_slot(id, &wanted), "choosing the slot to boot", id);
    const FlashSlots slots = read_slots(server_of(card));
    if (slots.next_boot == slot) return;
    throw Failure(
        Layer::Card, "NOT_SELECTED",
        fmt::format("card {} took the choice of slot {}, but says that it boots {} next", id, slot,
                    slots.next_boot ? "slot " + std::to_string(*slots.next_boot) : "none of the two"))
        .of_card(id);
}

Exit flash(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Server);
    const Server server = server_of(card);
    Json json = document("flash");
    json["card"] = card.device.device_id;
    add_to(json, read_slots(server));
    const std::string word = read_state(server);
    json["state"] = word == "idle" ? "idle" : "busy";
    json["phase"] = word;
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table({{"Slot 0", text_of(json["slots"][0])},
                            {"Slot 1", text_of(json["slots"][1])},
                            {"Next boot slot", text_of(json["next_boot_slot"])},
                            {"State", word == "idle" ? word : "busy: " + printable(word)}});
    }
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
