/// Makes the objects through which a Device reaches its card.
#ifndef KIV_I_DEVICE_FACTORY_H
#define KIV_I_DEVICE_FACTORY_H

#include <memory>
#include <string>

#include <kiv/IDeviceAccess.h>
#include <kiv/IRestApiClient.h>
#include <kiv/kiv_export.h>

namespace kiv::device {

/// One for each platform.
class KIV_API IDeviceFactory {
  public:
    virtual ~IDeviceFactory() = default;

    /// Access to the PCI function with that number, by the handle that the platform's enumerator gave for it.
    virtual std::unique_ptr<access::IDeviceAccess> createDeviceAccess(void* handle, unsigned function) = 0;

    /// Client of the management server at "address:port".
    virtual std::unique_ptr<rest::IRestApiClient> createRestApiClient(const std::string& address) = 0;
};

}  // namespace kiv::device

#endif
