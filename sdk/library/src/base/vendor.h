/// The vendor's reverse-DNS identifier: subsystem of the system log and prefix of the driver client's lines.
#ifndef KIV_VENDOR_H
#define KIV_VENDOR_H

namespace kiv {
inline constexpr const char* kVendorIdentifier = "com.velmora.kiv";
}  // namespace kiv

#endif
