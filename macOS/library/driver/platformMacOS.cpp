// macOS as the library's platform.
#include "driver/DeviceEnumeratorMacOS.h"
#include "driver/DeviceFactoryMacOS.h"
#include "driver/DriverClients.h"
#include "platform.h"

namespace kiv::platform {

std::unique_ptr<Clients> make_clients() {
    return std::make_unique<DriverClients>();
}

std::unique_ptr<device::IDeviceEnumerator> make_enumerator(Clients& clients) {
    return std::make_unique<device::DeviceEnumeratorMacOS>(static_cast<DriverClients&>(clients));
}

device::DeviceFactoryRegistry make_factories() {
    device::DeviceFactoryRegistry registry;
    registry["macOS"] = std::make_unique<device::DeviceFactoryMacOS>();
    return registry;
}

}  // namespace kiv::platform
