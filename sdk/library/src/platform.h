/// What the library needs of the platform that it runs on. macOS/library/driver implements it; a port to
/// another platform is another implementation of these three functions.
#ifndef KIV_PLATFORM_H
#define KIV_PLATFORM_H

#include <memory>

#include <kiv/DeviceFactoryRegistry.h>
#include <kiv/IDeviceEnumerator.h>

namespace kiv::platform {

/// What the platform keeps for the process beyond one scan: connections to the driver. Any thread.
class Clients {
  public:
    virtual ~Clients() = default;

    /// Takes leave of the driver. Called once, when the process exits, after all that uses the clients.
    virtual void release() = 0;
};

std::unique_ptr<Clients> make_clients();

/// Lists the cards of the machine and keeps the connections to them in `clients`, which outlives it.
std::unique_ptr<device::IDeviceEnumerator> make_enumerator(Clients& clients);

/// The factories of the platforms that the enumerator names, by their keys.
device::DeviceFactoryRegistry make_factories();

/// The clients of this process; null when it must not use the driver: while it exits, and in a forked child
/// of the process that has used it, which inherited them in whatever state. `to_connect` makes this process
/// the one that uses it. Defined with the state of the process, for entry points that belong to the platform.
Clients* clients_of_process(bool to_connect);

}  // namespace kiv::platform

#endif
