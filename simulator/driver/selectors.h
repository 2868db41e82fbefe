/// The driver's external methods, as the driver extension of a card answers them.
#ifndef KIVSIM_SELECTORS_H
#define KIVSIM_SELECTORS_H

#include <kivplatform/driver_protocol.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "card/VirtualCard.h"

namespace kivsim {

/// Whether the driver has a method of that number, one with structs or an asynchronous one.
bool is_selector(uint32_t selector);

/// Runs one method on the card's PCI function, for a connection. Returns its status, with the reply in
/// `output` on success.
int32_t run_selector(VirtualCard& card, const FunctionSettings& function, uint64_t connection,
                     uint32_t selector, std::span<const std::byte> input, std::vector<std::byte>& output);

/// What a connection has selected to be mapped, as its bytes in a shared memory; false when there is none.
struct SelectedMemory {
    int descriptor;
    kivplatform_mapping bytes;
};
bool selected_memory(VirtualCard& card, uint64_t connection, SelectedMemory& memory);

/// PTP time: nanoseconds of international atomic time since 1970.
uint64_t tai_ns();

}  // namespace kivsim

#endif
