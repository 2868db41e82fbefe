#include "numbers.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace kivctl {

namespace {

bool has_leading_zero(std::string_view digits) {
    return digits.size() > 1 && digits.front() == '0';
}

template <typename Number>
std::optional<Number> parsed(std::string_view digits, int base) {
    Number value = 0;
    const char* const last = digits.data() + digits.size();
    const auto [end, error] = std::from_chars(digits.data(), last, value, base);
    if (error != std::errc{} || end != last) return std::nullopt;
    return value;
}

}  // namespace

std::optional<int64_t> number_of(std::string_view text, int64_t least, int64_t most) {
    if (has_leading_zero(text.starts_with('-') ? text.substr(1) : text) || text == "-0") return std::nullopt;
    const std::optional<int64_t> value = parsed<int64_t>(text, 10);
    return value && *value >= least && *value <= most ? value : std::nullopt;
}

std::optional<uint64_t> code_of(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) return parsed<uint64_t>(text.substr(2), 16);
    return has_leading_zero(text) ? std::nullopt : parsed<uint64_t>(text, 10);
}

std::optional<Network> network_of(const std::string& text) {
    const std::size_t slash = text.find('/');
    in_addr address{};
    if (slash == std::string::npos || inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1)
        return std::nullopt;
    const std::optional<int64_t> prefix = number_of(std::string_view(text).substr(slash + 1), 0, 32);
    if (!prefix) return std::nullopt;
    return Network{ntohl(address.s_addr), static_cast<uint32_t>(*prefix)};
}

std::string why_no_port_address(const Network& network) {
    if (network.address >> 24 == 0) return "addresses that begin with 0 are no port's";
    if (network.address >> 24 == 127) return "addresses that begin with 127 are the host's own";
    if (network.address == UINT32_MAX) return "it is the broadcast address";
    if (network.address >> 28 == 14) return "it is a multicast address";
    if (network.address >> 28 == 15) return "addresses from 240 on are reserved";
    if (network.prefix == 0 || network.prefix > 30) return "a port's prefix is 1 to 30";
    const uint32_t host = UINT32_MAX >> network.prefix;
    if ((network.address & host) == 0) return "it is the address of the network itself";
    if ((network.address & host) == host) return "it is the broadcast address of its network";
    return "";
}

std::string dotted(uint32_t address) {
    return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 255, address >> 8 & 255, address & 255);
}

std::string hex64(uint64_t value) {
    return fmt::format("0x{:016X}", value);
}

}  // namespace kivctl
