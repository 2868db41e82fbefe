/// IDeviceFactory for the platform "macOS".
#ifndef KIV_DEVICE_FACTORY_MACOS_H
#define KIV_DEVICE_FACTORY_MACOS_H

#include <kiv/IDeviceFactory.h>

namespace kiv::device {

class DeviceFactoryMacOS final : public IDeviceFactory {
  public:
    /// `handle`: what DeviceEnumeratorMacOS::getDeviceAccessPtr gave, or null.
    std::unique_ptr<access::IDeviceAccess> createDeviceAccess(void* handle, unsigned function) override;
    std::unique_ptr<rest::IRestApiClient> createRestApiClient(const std::string& address) override;
};

}  // namespace kiv::device

#endif
