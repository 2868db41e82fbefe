/// Bytes and numbers in hexadecimal.
#ifndef KIVSIM_HEX_H
#define KIVSIM_HEX_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kivsim {

/// Two lower-case digits a byte.
std::string hex(std::span<const std::byte> bytes);

/// The bytes of such digits, in either case; nothing when there is anything else.
std::optional<std::vector<std::byte>> bytes_of_hex(const std::string& digits);

/// "0x1F"
std::string hex_number(uint64_t value);

}  // namespace kivsim

#endif
