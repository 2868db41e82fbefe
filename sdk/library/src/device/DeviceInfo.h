/// One card, as a platform's enumerator found it.
#ifndef KIV_DEVICE_INFO_H
#define KIV_DEVICE_INFO_H

#include <cstdint>
#include <string>
#include <vector>

namespace kiv::device {

/// Address of a PCI function.
struct PciFunction {
    uint8_t bus = 0;
    uint8_t device = 0;
    uint8_t function = 0;
};

/// What a Device needs to know of its card from the start.
struct DeviceInfo {
    std::string platform;  ///< Key of the platform's factory.
    std::string note;      ///< Not used by the device layer.
    uint8_t id = 0;        ///< The card's number: its key everywhere.
    std::vector<PciFunction> functions;
    /// Management server: dotted IPv4 address, colon, decimal port. Empty without function 0.
    std::string address;
};

}  // namespace kiv::device

#endif
