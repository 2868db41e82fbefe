/// The PCI functions of the cards, by the driver's own client.
#ifndef KIVCTL_FUNCTIONS_H
#define KIVCTL_FUNCTIONS_H

#include <kiv/kivDriverClient.h>

#include <cstdint>
#include <optional>

#include "device/registers.h"

namespace kivctl {

/// Of one card, in the driver's order; the id may be left out where there is one card. Throws Failure when
/// there is no such card.
kivDriverClientList functions_of(std::optional<uint8_t> card);

/// The one of that function id (kivDriverClient::pf0_st2110_id ...) among the functions of a card. Throws
/// Failure when there is none.
kivDriverClient& function_of(const kivDriverClientList& functions, uint8_t id);

/// Nothing when the card has no such function, or the driver cannot read the register.
std::optional<uint64_t> read_register(const kivDriverClientList& functions,
                                      const kiv::registers::Register& where);

}  // namespace kivctl

#endif
