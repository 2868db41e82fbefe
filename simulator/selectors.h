/// The driver's external methods, as the driver extension of a card answers them.
#ifndef KIVSIM_SELECTORS_H
#define KIVSIM_SELECTORS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "VirtualCard.h"

namespace kivsim {

/// Runs one method on the card's PCI function. Returns its status, with the reply in `output` on success.
int32_t run_selector(VirtualCard& card, const FunctionSettings& function, uint32_t selector,
                     std::span<const std::byte> input, std::vector<std::byte>& output);

}  // namespace kivsim

#endif
