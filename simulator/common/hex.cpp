#include "common/hex.h"

#include <charconv>

namespace kivsim {

std::string hex(std::span<const std::byte> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte) >> 4];
        text += kDigits[std::to_integer<unsigned>(byte) & 15];
    }
    return text;
}

std::optional<std::vector<std::byte>> bytes_of_hex(const std::string& digits) {
    if (digits.size() % 2 != 0) return {};
    std::vector<std::byte> bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        uint8_t byte = 0;
        const char* const end = digits.data() + at + 2;
        if (std::from_chars(digits.data() + at, end, byte, 16).ptr != end) return {};
        bytes.push_back(std::byte{byte});
    }
    return bytes;
}

std::string hex_number(uint64_t value) {
    char text[17];
    const char* const end = std::to_chars(text, text + sizeof text, value, 16).ptr;
    return "0x" + std::string(static_cast<const char*>(text), end);
}

}  // namespace kivsim
