#include "driver/DeviceEnumeratorMacOS.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include <kiv/kivDriverService.h>
#include "base/ipText.h"
#include "driver/DriverClients.h"

namespace kiv::device {

namespace {

/// "a.b.c.d:port" of the card's management server; only PCI function 0 knows it.
std::string server_address(const kivDriverClient& client) {
    if (client.boot_conf.function != 0) return {};
    return uint32ToIp(client.device_conf.tun) + ":" + std::to_string(client.device_conf.port);
}

/// Adds a PCI function to its card's entry, or the card with its first function.
void add_function(std::vector<DeviceInfo>& cards, const kivDriverClient& client) {
    const uint8_t id = client.device_conf.device_index;
    const PciFunction function{client.boot_conf.bus, client.boot_conf.device, client.boot_conf.function};
    std::string address = server_address(client);

    const auto known =
        std::find_if(cards.begin(), cards.end(), [&](const DeviceInfo& card) { return card.id == id; });
    if (known == cards.end()) {
        cards.push_back({"macOS", "", id, {function}, std::move(address)});
        return;
    }
    known->functions.push_back(function);
    if (!address.empty()) known->address = std::move(address);
}

}  // namespace

std::vector<DeviceInfo> DeviceEnumeratorMacOS::enumerate() {
    kivDriverClientList found = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    std::vector<DeviceInfo> cards;
    for (const auto& client : found)
        add_function(cards, *client);
    const bool none = found.empty();
    clients_.replace(&DriverClients::kivDev_, std::move(found));
    if (none) {
        std::puts("Fail open device");
        std::fflush(stdout);
    }
    return cards;
}

void* DeviceEnumeratorMacOS::getDeviceAccessPtr(unsigned id, unsigned function) {
    const std::lock_guard lock(clients_.mutex);
    for (const auto& client : clients_.kivDev_) {
        if (client->device_conf.device_index == static_cast<uint8_t>(id) &&
            client->boot_conf.function == static_cast<uint8_t>(function)) {
            return client.get();
        }
    }
    return nullptr;
}

}  // namespace kiv::device
