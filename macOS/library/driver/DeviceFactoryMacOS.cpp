#include "driver/DeviceFactoryMacOS.h"

#include <kiv/RestApiClient.h>
#include "driver/DeviceAccessMacOS.h"

namespace kiv::device {

std::unique_ptr<access::IDeviceAccess> DeviceFactoryMacOS::createDeviceAccess(void* handle,
                                                                              unsigned function) {
    return std::make_unique<access::DeviceAccessMacOS>(function, static_cast<kivDriverClient*>(handle));
}

std::unique_ptr<rest::IRestApiClient> DeviceFactoryMacOS::createRestApiClient(const std::string& address) {
    return std::make_unique<rest::RestApiClient>(address);
}

}  // namespace kiv::device
