/// IPv4 addresses and masks as dotted text. Stateless; any thread.
#ifndef KIV_IP_TEXT_H
#define KIV_IP_TEXT_H

#include <cstdint>
#include <string>

/// The four octets in decimal, the most significant first.
std::string uint32ToIp(uint32_t address);

/// The mask with `bits` leading ones; below 1 none, from 32 on all.
std::string bitCountToNetmask(int bits);

#endif
