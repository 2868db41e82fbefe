/// IPv4 addresses and masks as dotted text. Stateless; any thread.
#ifndef KIV_IP_TEXT_H
#define KIV_IP_TEXT_H

#include <cstdint>
#include <string>

/// The four octets in decimal, the most significant first.
inline std::string uint32ToIp(uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
           std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

/// The mask with `bits` leading ones; below 1 none, from 32 on all.
inline std::string bitCountToNetmask(int bits) {
    if (bits < 1) return uint32ToIp(0);
    if (bits >= 32) return uint32ToIp(0xFFFFFFFFu);
    return uint32ToIp(0xFFFFFFFFu << (32 - bits));
}

#endif
