/// The card's flash, as its management server reports it.
#ifndef KIVCTL_FLASH_H
#define KIVCTL_FLASH_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "cards.h"

namespace kivctl {

struct FlashSlots {
    std::array<std::string, 2> image;  ///< Identifiers, as the card writes them.
    std::optional<int> next_boot;      ///< Nothing when neither slot is marked, or both are.
    bool both_marked = false;
};

/// Throws Failure, with a card of that card.
FlashSlots read_slots(const Server& server);
FlashSlots read_slots(const Found& card);

/// The card's word for what its flash does; "idle" when nothing. Throws Failure, with a card of that card.
std::string read_state(const Server& server);
std::string read_state(const Found& card);

/// "state" and "phase" of that word.
Json state_json(const std::string& word);

/// Whether that word says that a write has come to a bad end.
bool says_failure(const std::string& word);

/// Adds "slots", "next_boot_slot".
void add_to(Json& json, const FlashSlots& slots);

/// Makes a slot the one to boot next, and looks whether the card says so. Throws Failure.
void select_slot(const Found& card, int slot);

}  // namespace kivctl

#endif
