// The texts of addresses, masks, firmware identifiers and server addresses.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <stdexcept>

#include <kiv/RestApiClient.h>
#include "base/addressText.h"
#include "base/ipText.h"
#include "input.h"

namespace {

using fuzz::expect;
using kiv::device::ip_string_to_uint32;

void try_address(const std::string& text) {
    const uint32_t address = ip_string_to_uint32(text);
    expect(ip_string_to_uint32(uint32ToIp(address)) == address, "an address survives its text");
    expect(std::count(text.begin(), text.end(), '.') == 3 || address == 0, "four numbers make an address");
}

void try_mask(const std::string& text) {
    try {
        const int bits = kiv::device::netmaskToBitCount(text);
        const auto pieces = std::count(text.begin(), text.end(), '.') + 1;
        expect(bits >= 0 && bits <= 8 * pieces, "a piece of a mask has at most 8 bits");
        const int whole = std::min(bits, 32);
        expect(kiv::device::netmaskToBitCount(bitCountToNetmask(whole)) == whole, "a mask survives its text");
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
}

void try_identifier(const std::string& text) {
    try {
        const auto [high, low, flag] = kiv::device::parse_hex_string_with_flag(text);
        char digits[33];
        std::snprintf(digits, sizeof digits, "%016llx%016llx", static_cast<unsigned long long>(high),
                      static_cast<unsigned long long>(low));
        std::string given = text.substr(0, 32);
        std::transform(given.begin(), given.end(), given.begin(),
                       [](unsigned char digit) { return static_cast<char>(std::tolower(digit)); });
        expect(given == digits, "an identifier is its digits");
        expect(flag == text.ends_with(kiv::device::NEXT_BOOT_FLAG), "the flag is the end of the text");
    } catch (const std::runtime_error&) {
    }
}

void try_server(const std::string& text) {
    const auto [ip, port] = kiv::rest::split_ip_port(text);
    const bool has_colon = text.find(':') != std::string::npos;
    expect(has_colon ? ip + ":" + port == text : ip.empty() && port.empty(), "two parts make the whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::be_quiet();
    const std::string text = fuzz::text_of(data, size);
    try_address(text);
    try_mask(text);
    try_identifier(text);
    try_server(text);
    return 0;
}
