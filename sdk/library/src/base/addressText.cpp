#include "base/addressText.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <iostream>
#include <locale>
#include <sstream>
#include <stdexcept>

namespace kiv::device {

namespace {

uint32_t address_error(const char* message) {
    std::cerr << "Error: " << message << std::endl;
    return 0;
}

uint64_t hex(const char* digits) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(digits, digits + 16, value, 16);
    if (error != std::errc{} || end != digits + 16) {
        throw std::runtime_error("Conversion failed: Invalid characters in hex string.");
    }
    return value;
}

}  // namespace

uint32_t ip_string_to_uint32(const std::string& text) {
    if (std::count(text.begin(), text.end(), '.') != 3) return 0;  // In silence: docs/oddities.md.
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    uint32_t address = 0;
    for (int i = 0; i < 4; ++i) {
        int octet = 0;
        if (!(in >> octet)) return address_error("Failed to read octet.");
        if (octet < 0 || octet > 255) return address_error("Octet value out of range (0-255).");
        address = address << 8 | static_cast<uint32_t>(octet);
        if (i < 3 && in.get() != '.') return address_error("Expected dot separator.");
    }
    if (in.get() != std::istringstream::traits_type::eof()) {
        return address_error("Extra characters found after the address.");
    }
    return address;
}

int netmaskToBitCount(const std::string& text) {
    std::istringstream in(text);
    int bits = 0;
    for (std::string piece; std::getline(in, piece, '.');) {
        // Contiguous or not: docs/oddities.md.
        bits += std::popcount(static_cast<uint8_t>(std::stoi(piece)));
    }
    return bits;
}

HexWithFlag parse_hex_string_with_flag(const std::string& text) {
    constexpr const char* kWhiteSpace = " \t\n\v\f\r";
    HexWithFlag result;
    std::string digits = text;
    result.flag = digits.ends_with(NEXT_BOOT_FLAG);
    if (result.flag) {
        digits.resize(digits.size() - std::string(NEXT_BOOT_FLAG).size());
        digits.resize(digits.find_last_not_of(kWhiteSpace) + 1);
    }
    if (digits.size() != 32) {
        throw std::runtime_error(
            "Invalid format: Hex string must be exactly 32 characters long after removing the flag.");
    }
    result.high = hex(digits.data());
    result.low = hex(digits.data() + 16);
    return result;
}

}  // namespace kiv::device
