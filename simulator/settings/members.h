/// The members of a card: one table for the cards file, for changes while it runs, and for what is read back.
#ifndef KIVSIM_MEMBERS_H
#define KIVSIM_MEMBERS_H

#include "card/CardSettings.h"
#include "common/ConfigNode.h"

namespace kivsim {

/// A card of the cards file: believable where nothing is said. Throws BadConfig.
CardSettings card_of(const ConfigNode& node);

/// What a running card with the settings `present` becomes with the members of `node`. Throws BadConfig, also
/// when a member has another value than now and cannot change while the card runs.
CardSettings changed_card(const ConfigNode& node, const CardSettings& present);

/// One member as the cards file has it; discarded when there is no such member, or nothing to say of it.
Json member_json(const CardSettings& card, const std::string& key);

/// As the cards file has it. Throws BadConfig for what no cards file can hold.
Json json_of(const CardSettings& card);

}  // namespace kivsim

#endif
