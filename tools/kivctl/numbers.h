/// Numbers and addresses of the command line: the whole word, or nothing.
#ifndef KIVCTL_NUMBERS_H
#define KIVCTL_NUMBERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kivctl {

/// A decimal number from `least` to `most`: digits only, with a minus only where that can be in range. No
/// leading zero: 010 is eight to some programs and ten to others.
std::optional<int64_t> number_of(std::string_view text, int64_t least, int64_t most);

/// The same, or hexadecimal digits after "0x".
std::optional<uint64_t> code_of(std::string_view text);

/// An IPv4 address, first octet in the most significant byte, and the length of its prefix.
struct Network {
    uint32_t address;
    uint32_t prefix;
};

/// "A.B.C.D/N", N from 0 to 32.
std::optional<Network> network_of(const std::string& text);

/// Why no port can have this address; empty when one can.
std::string why_no_port_address(const Network& network);

std::string dotted(uint32_t address);
std::string hex64(uint64_t value);

}  // namespace kivctl

#endif
