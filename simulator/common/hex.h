/// Bytes in hexadecimal.
#ifndef KIVSIM_HEX_H
#define KIVSIM_HEX_H

#include <cstddef>
#include <span>
#include <string>

namespace kivsim {

/// Two lower-case digits a byte.
inline std::string hex(std::span<const std::byte> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte) >> 4];
        text += kDigits[std::to_integer<unsigned>(byte) & 15];
    }
    return text;
}

}  // namespace kivsim

#endif
