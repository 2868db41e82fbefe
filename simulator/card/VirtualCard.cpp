#include "card/VirtualCard.h"

#include <limits>
#include <utility>

#include "base/ipText.h"

namespace kivsim {

namespace {
constexpr uint32_t kAncMemorySize = 64u << 10;  ///< Bytes.
}

VirtualCard::VirtualCard(CardSettings settings) : management(settings), settings_(std::move(settings)) {
    set_registers(settings_.registers);
    driver.next_bus_address *= settings_.id + uint64_t{1};
    for (const uint32_t id : kAncMemories)
        driver.allocate(id, kAncMemorySize, 1, 0);
    for (const FunctionSettings& function : settings_.functions)
        driver.pci_links[function.number] = {{function.pci_link[0], function.pci_link[1]}};
    device_conf.device_index = settings_.id;
    device_conf.ip[0] = settings_.addresses[0];
    device_conf.ip[1] = settings_.addresses[1];
    device_conf.tun = settings_.tunnel_address;
    device_conf.port = settings_.tunnel_port;
}

bool VirtualCard::is_present() {
    const std::lock_guard lock(mutex);
    return !removed;
}

void VirtualCard::set_registers(const std::vector<RegisterSettings>& registers) {
    for (const RegisterSettings& entry : registers) {
        if (entry.value <= std::numeric_limits<uint32_t>::max()) {
            bars.write(entry.bar, entry.offset, static_cast<uint32_t>(entry.value));
        } else {
            bars.write(entry.bar, entry.offset, entry.value);
        }
    }
}

void VirtualCard::set_tunnel_port(uint16_t port) {
    settings_.tunnel_port = port;
    device_conf.port = port;
}

std::string VirtualCard::server_address() const {
    return uint32ToIp(settings_.tunnel_address) + ":" + std::to_string(settings_.tunnel_port);
}

DriverFault VirtualCard::next_fault(uint32_t selector) {
    const std::lock_guard lock(mutex);
    const uint32_t count = ++calls_[selector];
    for (const DriverFault& fault : settings_.driver_faults) {
        if (fault.selector == selector && (!fault.nth || *fault.nth == count)) return fault;
    }
    return {};
}

}  // namespace kivsim
