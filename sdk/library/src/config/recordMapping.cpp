#include "config/recordMapping.h"

#include <algorithm>

#include "base/ipText.h"

namespace kiv::config {

namespace {

void store_port(MacEthConfig& port, uint32_t address, uint32_t prefix, uint8_t tos, uint8_t ttl) {
    port.ip_addr = uint32ToIp(address);
    port.netmask = bitCountToNetmask(static_cast<int>(prefix));
    port.tos = tos;
    port.ttl = ttl;
}

}  // namespace

void read_ptp_settings(const CardConfig& from, uint8_t id, kiv_ptp_config_t& out) {
    out.global_params[0] = static_cast<int8_t>(from.ptp.announceReceiptTimeout);
    out.global_params[1] = static_cast<int8_t>(from.ptp.domainNumber);
    out.global_params[2] = static_cast<int8_t>(from.ptp.logAnnounceInterval);
    out.global_params[3] = static_cast<int8_t>(from.ptp.logDelayReqInterval);
    out.enabled = from.ptp.unicast_delay_req != 0;
    const auto card = std::find_if(from.devices.begin(), from.devices.end(),
                                   [&](const DeviceConfig& entry) { return entry.device_id == id; });
    if (card == from.devices.end()) return;
    out.port_params[0] = static_cast<uint8_t>(card->maceth0.tos);
    out.port_params[1] = static_cast<uint8_t>(card->maceth1.tos);
    out.port_params[2] = static_cast<uint8_t>(card->maceth0.ttl);
    out.port_params[3] = static_cast<uint8_t>(card->maceth1.ttl);
}

void store_settings(CardConfig& to, uint8_t id, const kiv_net_config_t& net, const kiv_ptp_config_t& ptp) {
    for (DeviceConfig& entry : to.devices) {
        if (entry.device_id != id) continue;
        store_port(entry.maceth0, net.port_0.ip_address_0, net.port_0.prefix_length_0, ptp.port_params[0],
                   ptp.port_params[2]);
        store_port(entry.maceth1, net.port_1.ip_address_1, net.port_1.prefix_length_1, ptp.port_params[1],
                   ptp.port_params[3]);
    }
    to.ptp = {ptp.global_params[0], ptp.global_params[1], ptp.global_params[2], ptp.global_params[3],
              ptp.enabled};
}

}  // namespace kiv::config
