#include "Device.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "SystemMonitorData.h"
#include "addressText.h"
#include "deviceLog.h"

namespace kiv::device {

namespace {

constexpr uint8_t kIdentityBar = 0;
constexpr uint8_t kStatusBar = 0;
constexpr uint64_t kStatusOffset = 0x140;
constexpr uint32_t kLinkSpeedGbps = 100;

bool bit(uint64_t value, unsigned number) {
    return (value >> number & 1) != 0;
}

/// At most 17 characters and a terminator.
void copy_mac(char (&to)[20], std::string_view text) {
    const std::size_t length = std::min<std::size_t>(text.size(), 17);
    std::memcpy(to, text.data(), length);
    to[length] = '\0';
}

}  // namespace

Device::Device(DeviceInfo info, AccessList accesses, std::unique_ptr<rest::IRestApiClient> rest)
    : info_(std::move(info)), accesses_(std::move(accesses)), rest_(std::move(rest)) {}

access::IDeviceAccess* Device::access(uint32_t function) const {
    for (const auto& candidate : accesses_) {
        if (candidate && candidate->function() == function) return candidate.get();
    }
    return nullptr;
}

bool Device::read_status(uint64_t& status) const {
    access::IDeviceAccess* const function_1 = access(1);
    return function_1 != nullptr && function_1->readRegister64(kStatusBar, kStatusOffset, status) == 0;
}

kiv_result_t Device::get_card_info(kiv_card_info_t& info) {
    access::IDeviceAccess* const function_0 = access(0);
    if (function_0 == nullptr) return KIV_ERR_FAILED;
    // The fifth register only has to be readable.
    constexpr uint64_t kOffsets[] = {0x00, 0x08, 0x10, 0x18, 0x38};
    uint64_t words[std::size(kOffsets)] = {};
    for (std::size_t i = 0; i < std::size(kOffsets); ++i) {
        if (function_0->readRegister64(kIdentityBar, kOffsets[i], words[i]) != 0) return KIV_ERR_FAILED;
    }
    if (!rest_) return KIV_ERR_REST;
    info.reg_00 = words[0];
    info.reg_08 = words[1];
    info.reg_10 = words[2];
    info.reg_18 = words[3];
    info.reserved = 0;
    for (kiv_card_port_t& port : info.port)
        port.link_speed_gbps = kLinkSpeedGbps;
    for (const inteface_info& entry : rest_->interfaces()) {
        if (entry.if_name == "maceth0") copy_mac(info.port[0].mac_address, entry.hw_addr);
        if (entry.if_name == "maceth1") copy_mac(info.port[1].mac_address, entry.hw_addr);
    }
    return KIV_OK;
}

kiv_result_t Device::get_media_net_config(kiv_net_config_t& config) {
    std::vector<inteface_info> interfaces;
    if (!rest_ || rest_->get_interface_info(interfaces) != 0) {
        device_log_error(__LINE__, "Fail get_interface_info");
        return KIV_ERR_REST;
    }
    for (const inteface_info& entry : interfaces) {
        if (entry.if_name == "maceth0") {
            config.port_0.ip_address_0 = ip_string_to_uint32(entry.ip_addr);
            config.port_0.prefix_length_0 = static_cast<uint32_t>(netmaskToBitCount(entry.netmask));
        } else if (entry.if_name == "maceth1") {
            config.port_1.ip_address_1 = ip_string_to_uint32(entry.ip_addr);
            config.port_1.prefix_length_1 = static_cast<uint32_t>(netmaskToBitCount(entry.netmask));
        }
    }
    return KIV_OK;
}

kiv_result_t Device::get_tun_config(uint32_t& address, uint32_t& mask) {
    access::IDeviceAccess* const function_0 = access(0);
    if (function_0 == nullptr) return KIV_ERR_FAILED;
    return static_cast<kiv_result_t>(function_0->getTunIP(address, mask));
}

kiv_result_t Device::selected_ptp_card() {
    access::IDeviceAccess* const function_0 = access(0);
    const int32_t selected = function_0 == nullptr ? -1 : function_0->selected_ptp_card();
    return selected < 0 ? KIV_ERR_FAILED : static_cast<kiv_result_t>(selected);
}

void Device::addCallback(kiv_event_callback_t callback, void* user) {
    const std::lock_guard lock(mutex_);
    callbacks_.emplace_back(callback, user);
}

void Device::removeCallback() {
    const std::lock_guard lock(mutex_);
    callbacks_.clear();
}

void Device::enableEvent(kiv_event_type_t type) {
    const std::lock_guard lock(mutex_);
    enabled_events_.insert(type);
}

void Device::disableEvent(kiv_event_type_t type) {
    const std::lock_guard lock(mutex_);
    enabled_events_.erase(type);
}

bool Device::isEventEnabled(kiv_event_type_t type) const {
    return enabled_events_.contains(type);
}

void Device::notifyCallbacks(kiv_event_type_t type, const void* data) {
    for (const auto& [callback, user] : callbacks_)
        callback(info_.id, type, data, user);
}

bool Device::poll_1sec() {
    const std::lock_guard lock(mutex_);
    uint64_t status = 0;
    if (!read_status(status)) return false;
    const bool ptp_notified = isEventEnabled(KIV_EVENT_PTP) && poll_ptp(status);
    const bool link_notified = isEventEnabled(KIV_EVENT_LINK) && poll_link(status);
    return ptp_notified || link_notified;
}

/// A change counts as notified only when somebody was called.
bool Device::poll_ptp(uint64_t status) {
    uint32_t state = 0;
    if (!bit(status, 8)) state = bit(status, 9) ? 1 : bit(status, 10) ? 3 : 0;
    if (state == last_ptp_state_) return false;
    last_ptp_state_ = state;
    notifyCallbacks(KIV_EVENT_PTP, &state);
    return !callbacks_.empty();
}

/// A change counts as notified even when nobody listens.
bool Device::poll_link(uint64_t status) {
    const uint8_t now[2] = {bit(status, 6), bit(status, 7)};
    const kiv_event_link_t event{now[0] != last_link_[0], now[0], now[1] != last_link_[1], now[1]};
    if (event.port_0_changed == 0 && event.port_1_changed == 0) return false;
    std::memcpy(last_link_, now, sizeof last_link_);
    notifyCallbacks(KIV_EVENT_LINK, &event);
    return true;
}

/// The request runs without the Device mutex, so enabling an event never waits for the network.
bool Device::poll_60sec() {
    {
        const std::lock_guard lock(mutex_);
        if (!isEventEnabled(KIV_EVENT_HWMON)) return false;
    }
    std::string json;
    if (!rest_ || rest_->get_hwmon_info(json, true) != 0) {
        device_log_error(__LINE__, "Fail get_hwmon_info");
        return true;
    }
    SystemMonitorData data;
    parse_json_to_struct_cpp(json, data);

    kiv_event_hwmon_t event{};
    bool alarm = false;
    for (std::size_t i = 0; i < std::size(event.entry); ++i) {
        event.entry[i].sensor = data.sensors[i];
        event.entry[i].alarm = data.sensors[i].input >= data.sensors[i].max;
        alarm = alarm || event.entry[i].alarm != 0;
    }
    if (!alarm) return false;
    const std::lock_guard lock(mutex_);
    if (!isEventEnabled(KIV_EVENT_HWMON)) return false;
    notifyCallbacks(KIV_EVENT_HWMON, &event);
    return true;
}

}  // namespace kiv::device
