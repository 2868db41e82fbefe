/// Conversions of addresses, masks and firmware identifiers from the card's texts. Stateless; any thread.
#ifndef KIV_ADDRESS_TEXT_H
#define KIV_ADDRESS_TEXT_H

#include <cstdint>
#include <string>

namespace kiv::device {

/// Marks the firmware identifier of the slot that boots next.
inline constexpr const char* NEXT_BOOT_FLAG = "[Next Boot Image]";

/// Dotted IPv4 text to its number, first octet in the most significant byte. Any error is 0, with a line on
/// standard error unless the number of dots is wrong.
uint32_t ip_string_to_uint32(const std::string& text);

/// Number of one bits in a dotted mask, contiguous or not. Throws std::invalid_argument (or
/// std::out_of_range) for a piece that is not a number.
int netmaskToBitCount(const std::string& text);

/// A 128-bit firmware identifier.
struct HexWithFlag {
    uint64_t high = 0;  ///< First 16 hexadecimal digits.
    uint64_t low = 0;   ///< Next 16 digits.
    bool flag = false;  ///< The text carried NEXT_BOOT_FLAG.
};

/// 32 hexadecimal digits, optionally followed by white space and NEXT_BOOT_FLAG. Throws std::runtime_error
/// otherwise.
HexWithFlag parse_hex_string_with_flag(const std::string& text);

}  // namespace kiv::device

#endif
