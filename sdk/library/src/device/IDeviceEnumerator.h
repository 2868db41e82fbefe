/// Lists the cards of the machine.
#ifndef KIV_I_DEVICE_ENUMERATOR_H
#define KIV_I_DEVICE_ENUMERATOR_H

#include <vector>

#include <kiv/DeviceInfo.h>
#include <kiv/kiv_export.h>

namespace kiv::device {

/// Used by one thread at a time.
class KIV_API IDeviceEnumerator {
  public:
    virtual ~IDeviceEnumerator() = default;

    /// The cards that are there now, each once.
    virtual std::vector<DeviceInfo> enumerate() = 0;

    /// The platform's handle of a card's PCI function, or null. Owned by the enumerator.
    virtual void* getDeviceAccessPtr(unsigned id, unsigned function) = 0;
};

}  // namespace kiv::device

#endif
