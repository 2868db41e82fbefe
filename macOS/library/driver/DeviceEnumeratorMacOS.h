/// IDeviceEnumerator over the driver extension's services.
#ifndef KIV_DEVICE_ENUMERATOR_MACOS_H
#define KIV_DEVICE_ENUMERATOR_MACOS_H

#include <kiv/IDeviceEnumerator.h>
#include "driver/DriverClients.h"

namespace kiv::device {

/// Any thread.
class DeviceEnumeratorMacOS final : public IDeviceEnumerator {
  public:
    /// Keeps what it finds in `clients`, which outlives it.
    explicit DeviceEnumeratorMacOS(DriverClients& clients) : clients_(clients) {}

    /// One entry for each card, in order of first appearance. Replaces the shared clients; without any card,
    /// a line on standard output says so.
    std::vector<DeviceInfo> enumerate() override;

    /// The kivDriverClient of that card's PCI function, or null. Valid until the next enumeration.
    void* getDeviceAccessPtr(unsigned id, unsigned function) override;

  private:
    DriverClients& clients_;
};

}  // namespace kiv::device

#endif
