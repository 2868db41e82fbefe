/// What is done to a card while it runs: over the control address, and by the timeline of a scenario.
#ifndef KIVSIM_SETTINGS_CHANGES_H
#define KIVSIM_SETTINGS_CHANGES_H

#include <optional>
#include <string>
#include <vector>

#include "card/VirtualCard.h"
#include "common/ConfigNode.h"

namespace kivsim {

// All are called holding the card's mutex. Throw BadConfig before anything is changed.

/// The members replace what the card has: all of them, or none when one is bad.
void change(VirtualCard& card, const ConfigNode& members);

/// Messages for the programs that have registered.
void send_messages(VirtualCard& card, const ConfigNode& node);

// A place in a card is a JSON pointer into what is read back: "/links", "/hwmon/0/input". A register is one
// by the name of its BAR and its offset, whatever its value: "/registers/0/0x140", 4 bytes.

/// The places that a change with these members sets, which are good ones.
std::vector<std::string> places_of(const ConfigNode& members);

/// JSON text; nothing where there is no such place.
std::optional<std::string> value_at(VirtualCard& card, const std::string& place);

/// Changes this place, which there must be, and leaves all others alone. Complaints begin with `source`.
void set_at(VirtualCard& card, const std::string& place, const std::string& value, const std::string& source);

}  // namespace kivsim

#endif
