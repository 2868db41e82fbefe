/// The PCI functions of the cards, by the driver's own client.
#ifndef KIVCTL_FUNCTIONS_H
#define KIVCTL_FUNCTIONS_H

#include <kiv/kivDriverClient.h>

#include <cstdint>
#include <optional>

namespace kivctl {

/// Of one card, in the driver's order; the id may be left out where there is one card. Throws Failure when
/// there is no such card.
kivDriverClientList functions_of(std::optional<uint8_t> card);

}  // namespace kivctl

#endif
