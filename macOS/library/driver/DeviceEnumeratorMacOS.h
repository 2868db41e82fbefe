/// IDeviceEnumerator over the driver extension's services.
#ifndef KIV_DEVICE_ENUMERATOR_MACOS_H
#define KIV_DEVICE_ENUMERATOR_MACOS_H

#include "IDeviceEnumerator.h"

namespace kiv::device {

/// All enumerators share the process's list of clients. Any thread.
class DeviceEnumeratorMacOS final : public IDeviceEnumerator {
  public:
    /// One entry for each card, in order of first appearance. Replaces the shared clients; without any card,
    /// a line on standard output says so.
    std::vector<DeviceInfo> enumerate() override;

    /// The kivDriverClient of that card's PCI function, or null. Valid until the next enumeration.
    void* getDeviceAccessPtr(unsigned id, unsigned function) override;
};

}  // namespace kiv::device

#endif
