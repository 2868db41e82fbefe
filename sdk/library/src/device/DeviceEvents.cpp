// The polls of one card, and its event callbacks.
#include <cstring>
#include <string>

#include <kiv/Device.h>
#include <kiv/SystemMonitorData.h>
#include "device/statusRegister.h"
#include "log/kivLogDispatch.h"

namespace kiv::device {

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
    if (!read_register(registers::kStatus, status)) return false;
    const bool ptp_notified = isEventEnabled(KIV_EVENT_PTP) && poll_ptp(status);
    const bool link_notified = isEventEnabled(KIV_EVENT_LINK) && poll_link(status);
    return ptp_notified || link_notified;
}

/// A change counts as notified only when somebody was called: docs/oddities.md.
bool Device::poll_ptp(uint64_t status) {
    const uint32_t state = ptp_state(status).value_or(0);
    if (state == last_ptp_state_) return false;
    last_ptp_state_ = state;
    notifyCallbacks(KIV_EVENT_PTP, &state);
    return !callbacks_.empty();
}

/// A change counts as notified even when nobody listens: docs/oddities.md.
bool Device::poll_link(uint64_t status) {
    const uint8_t now[2] = {bit(status, registers::kStatusLink0), bit(status, registers::kStatusLink1)};
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
        log_error(kDeviceSource, "Fail get_hwmon_info");
        return true;
    }
    SystemMonitorData data;
    parse_json_to_struct_cpp(json, data);  // Unreadable is all zeros, and so an alarm: docs/oddities.md.

    kiv_event_hwmon_t event{};
    bool alarm = false;
    for (std::size_t i = 0; i < std::size(event.entry); ++i) {
        event.entry[i].sensor = data.sensors[i];
        // Not `critical`: docs/oddities.md.
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
