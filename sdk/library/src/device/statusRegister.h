/// What the bits of registers say.
#ifndef KIV_STATUS_REGISTER_H
#define KIV_STATUS_REGISTER_H

#include <cstdint>
#include <optional>

#include "device/registers.h"

namespace kiv::device {

inline bool bit(uint64_t value, unsigned number) {
    return (value >> number & 1) != 0;
}

/// PTP state of a status register: of its three bits the lowest that is set counts.
inline std::optional<uint32_t> ptp_state(uint64_t status) {
    if (bit(status, registers::kStatusPtp0)) return 0;
    if (bit(status, registers::kStatusPtp1)) return 1;
    if (bit(status, registers::kStatusPtp3)) return 3;
    return std::nullopt;
}

}  // namespace kiv::device

#endif
