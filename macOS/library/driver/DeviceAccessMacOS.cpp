#include "driver/DeviceAccessMacOS.h"

namespace kiv::access {

namespace {

/// Calls `operation` with the client, or gives -1 when that is gone.
template <typename Operation>
int32_t with(const std::weak_ptr<kivDriverClient>& reference, Operation operation) {
    const std::shared_ptr<kivDriverClient> client = reference.lock();
    return client ? operation(*client) : -1;
}

int32_t low_bytes(const uint16_t (&values)[3], uint8_t& a, uint8_t& b, uint8_t& c) {
    a = static_cast<uint8_t>(values[0]);
    b = static_cast<uint8_t>(values[1]);
    c = static_cast<uint8_t>(values[2]);
    return 0;
}

}  // namespace

DeviceAccessMacOS::DeviceAccessMacOS(uint32_t function, kivDriverClient* client) : IDeviceAccess(function) {
    if (client != nullptr) client_ = client->weak_from_this();
}

int32_t DeviceAccessMacOS::open() {
    return with(client_, [](auto& client) { return client.open(false); });
}

int32_t DeviceAccessMacOS::close() {
    return with(client_, [](auto& client) { return client.close(); });
}

bool DeviceAccessMacOS::isOpen() const {
    const std::shared_ptr<kivDriverClient> client = client_.lock();
    return client && client->isOpen();
}

int32_t DeviceAccessMacOS::readRegister32(uint8_t bar, uint64_t offset, uint32_t& value) {
    return with(client_, [&](auto& client) { return client.read_pci32(bar, offset, &value); });
}

int32_t DeviceAccessMacOS::writeRegister32(uint8_t bar, uint64_t offset, uint32_t value) {
    return with(client_, [&](auto& client) { return client.write_pci32(bar, offset, value); });
}

int32_t DeviceAccessMacOS::readRegister64(uint8_t bar, uint64_t offset, uint64_t& value) {
    return with(client_, [&](auto& client) { return client.read_pci64(bar, offset, &value); });
}

int32_t DeviceAccessMacOS::writeRegister64(uint8_t bar, uint64_t offset, uint64_t value) {
    return with(client_, [&](auto& client) { return client.write_pci64(bar, offset, value); });
}

int32_t DeviceAccessMacOS::getPtpTai(uint64_t& tai) {
    return with(client_, [&](auto& client) { return client.get_ptp_epoch_time(&tai); });
}

int32_t DeviceAccessMacOS::getTxUseResourceData(uint8_t& a, uint8_t& b, uint8_t& c) {
    return with(client_, [&](auto& client) {
        kivDriverClient::use_resource resource{};
        const int32_t status = client.get_use_resource_data(resource);
        return status != 0 ? status : low_bytes(resource.tx, a, b, c);
    });
}

int32_t DeviceAccessMacOS::getRxUseResourceData(uint8_t& a, uint8_t& b, uint8_t& c) {
    return with(client_, [&](auto& client) {
        kivDriverClient::use_resource resource{};
        const int32_t status = client.get_use_resource_data(resource);
        return status != 0 ? status : low_bytes(resource.rx, a, b, c);
    });
}

int32_t DeviceAccessMacOS::getTunIP(uint32_t& address, uint32_t& port) {
    return with(client_, [&](auto& client) {
        address = client.device_conf.tun;
        port = client.device_conf.port;
        return 0;
    });
}

int32_t DeviceAccessMacOS::selected_ptp_card() {
    return with(client_, [](auto& client) { return int32_t{client.device_conf.ptp_selected}; });
}

int32_t DeviceAccessMacOS::getEpochAnd2point(uint64_t& a, uint64_t& b, uint64_t& c) {
    return with(client_, [&](auto& client) { return client.get_ptp_epoch_time_and_system_time(a, b, c); });
}

int32_t DeviceAccessMacOS::getLinkStatus(uint8_t& a, uint8_t& b) {
    return with(client_, [&](auto& client) {
        kivDriverClient::pci_link_info link{};
        const int32_t status = client.get_pci_link_info(link);
        if (status != 0) return status;
        a = link.value[1];  // The second first: docs/oddities.md.
        b = link.value[0];
        return 0;
    });
}

}  // namespace kiv::access
