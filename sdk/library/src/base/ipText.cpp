#include "base/ipText.h"

std::string uint32ToIp(uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
           std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

std::string bitCountToNetmask(int bits) {
    if (bits < 1) return uint32ToIp(0);
    if (bits >= 32) return uint32ToIp(0xFFFFFFFFu);
    return uint32ToIp(0xFFFFFFFFu << (32 - bits));
}
