#include <kiv/kiv_api.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "base/ipText.h"
#include "gate.h"

using kiv::guarded;
using kiv::api::call_device;
using kiv::api::command_device;
using kiv::api::kApiSource;
using kiv::api::null_argument;
using kiv::api::Process;
using kiv::api::query_device;
using kiv::config::CardConfig;
using kiv::config::DeviceConfig;
using kiv::config::MacEthConfig;
using kiv::config::PtpConfig;
using kiv::device::Device;

namespace {

constexpr kiv_flash_status_t kIdle = 0;
constexpr kiv_flash_status_t kBusy = 1;
constexpr int kStartAttempts = 10;
constexpr std::chrono::milliseconds kStartPause{100};

/// The settings that the configuration holds for a card. Without an entry for it the ports' stay untouched.
void read_configuration(uint8_t id, kiv_ptp_config_t& out) {
    Process& process = Process::instance();
    const std::lock_guard lock(process.config_mutex);
    const PtpConfig& ptp = process.g_CardConfig.ptp;
    out.global_params[0] = static_cast<int8_t>(ptp.announceReceiptTimeout);
    out.global_params[1] = static_cast<int8_t>(ptp.domainNumber);
    out.global_params[2] = static_cast<int8_t>(ptp.logAnnounceInterval);
    out.global_params[3] = static_cast<int8_t>(ptp.logDelayReqInterval);
    out.enabled = ptp.unicast_delay_req != 0;
    const auto& entries = process.g_CardConfig.devices;
    const auto card = std::find_if(entries.begin(), entries.end(),
                                   [&](const DeviceConfig& entry) { return entry.device_id == id; });
    if (card == entries.end()) return;
    out.port_params[0] = static_cast<uint8_t>(card->maceth0.tos);
    out.port_params[1] = static_cast<uint8_t>(card->maceth1.tos);
    out.port_params[2] = static_cast<uint8_t>(card->maceth0.ttl);
    out.port_params[3] = static_cast<uint8_t>(card->maceth1.ttl);
}

void store_port(MacEthConfig& port, uint32_t address, uint32_t prefix, uint8_t tos, uint8_t ttl) {
    port.ip_addr = uint32ToIp(address);
    port.netmask = bitCountToNetmask(static_cast<int>(prefix));
    port.tos = tos;
    port.ttl = ttl;
}

/// Into every entry of the card; in memory only.
void store_configuration(uint8_t id, const kiv_net_config_t& net, const kiv_ptp_config_t& ptp) {
    Process& process = Process::instance();
    const std::lock_guard lock(process.config_mutex);
    for (DeviceConfig& entry : process.g_CardConfig.devices) {
        if (entry.device_id != id) continue;
        store_port(entry.maceth0, net.port_0.ip_address_0, net.port_0.prefix_length_0, ptp.port_params[0],
                   ptp.port_params[2]);
        store_port(entry.maceth1, net.port_1.ip_address_1, net.port_1.prefix_length_1, ptp.port_params[1],
                   ptp.port_params[3]);
    }
    process.g_CardConfig.ptp = {ptp.global_params[0], ptp.global_params[1], ptp.global_params[2],
                                ptp.global_params[3], ptp.enabled};
}

/// Waits until the card is seen busy, or its state cannot be read, or about a second has passed.
void wait_for_start(Device& device) noexcept try {
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        kiv_flash_status_t status = kIdle;
        if (device.get_flash_write_status(status) != KIV_OK || status == kBusy) return;
        std::this_thread::sleep_for(kStartPause);
    }
} catch (...) {
    // The upload has succeeded: what the status says now does not change that.
}

kiv_result_t write_flash_image(Device& device, const char* path) {
    kiv_flash_status_t status = kIdle;
    const kiv_result_t asked = device.get_flash_write_status(status);
    if (asked != KIV_OK) return asked;
    if (status != kIdle) {
        kivLog_dispatch(KIV_LOG_LEVEL_ERROR, kApiSource, __LINE__, "Can't write now. Status={}", status);
        return KIV_ERR_BUSY;
    }
    if (path == nullptr) return null_argument();
    const kiv_result_t uploaded = device.upload_image(path);
    if (uploaded != KIV_OK) return uploaded;
    wait_for_start(device);
    return KIV_OK;
}

}  // namespace

// ---- Life cycle -----------------------------------------------------------------------------------------

kiv_result_t kiv_open(const kiv_log_config_t* log_config) {
    Process& process = Process::instance();
    if (process.inherited()) return KIV_ERR_NOT_OPENED;
    kivLog_open(log_config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
    const std::string path = CardConfig::getPath();
    CardConfig fresh = CardConfig::load_from_file(path);
    {
        const std::lock_guard lock(process.config_mutex);
        process.g_CardConfig = std::move(fresh);
    }
    kivLog_dispatch(KIV_LOG_LEVEL_INFO, kApiSource, __LINE__, "Starting KIV SDK: Config path={}", path);
    return KIV_OK;
}

kiv_result_t kiv_get_sw_version(kiv_sw_version_t* version) {
    if (version != nullptr) *version = {KIV_VERSION_MAJOR, KIV_VERSION_MINOR, KIV_VERSION_REVISION};
    return KIV_OK;
}

kiv_result_t kiv_configure_save() {
    Process& process = Process::instance();
    if (process.inherited()) return KIV_ERR_NOT_OPENED;
    const std::lock_guard lock(process.config_mutex);
    process.g_CardConfig.save_to_file(CardConfig::getPath());
    return KIV_OK;
}

kiv_result_t kiv_log_print(kiv_log_level_t level, const char* message) {
    return guarded([&]() -> kiv_result_t {
        if (message == nullptr) return null_argument();
        kivLog_dispatch(level, kApiSource, 528, message);
        return KIV_OK;
    });
}

// ---- Discovery (the scan itself is in kiv_scan.cpp) -----------------------------------------------------

kiv_result_t kiv_get_id_selected_ptp_card(uint8_t* device_id) {
    return guarded([&]() -> kiv_result_t {
        if (device_id == nullptr) return null_argument();
        Process& process = Process::instance();
        const auto manager = process.manager();
        if (!manager) return process.over() ? KIV_ERR_NOT_OPENED : KIV_ERR_FAILED;
        for (const auto& device : manager->allDevices()) {
            const kiv_result_t selected = device->selected_ptp_card();
            if (selected == 0 || selected == KIV_ERR_FAILED) continue;
            *device_id = device->info().id;
            return KIV_OK;
        }
        return KIV_ERR_FAILED;
    });
}

// ---- Queries of one card --------------------------------------------------------------------------------

kiv_result_t kiv_get_card_info(uint8_t id, kiv_card_info_t* info) {
    return query_device(id, &Device::get_card_info, info);
}

kiv_result_t kiv_get_card_status(uint8_t id, kiv_card_status_t* status) {
    return query_device(id, &Device::get_card_status, status);
}

kiv_result_t kiv_get_media_net_config(uint8_t id, kiv_net_config_t* config) {
    return query_device(id, &Device::get_media_net_config, config);
}

kiv_result_t kiv_get_ptp_net_config(uint8_t id, kiv_net_config_t* config) {
    return query_device(id, &Device::get_media_net_config, config);
}

kiv_result_t kiv_get_net_status(uint8_t id, kiv_net_status_t* status) {
    return query_device(id, &Device::get_net_status, status);
}

kiv_result_t kiv_get_ptp_config(uint8_t id, kiv_ptp_config_t* config) {
    return query_device(
        id,
        [id](Device& device, kiv_ptp_config_t& out) {
            read_configuration(id, out);
            return device.get_ptp_config(out);
        },
        config);
}

kiv_result_t kiv_get_ptp_status(uint8_t id, kiv_ptp_status_t* status) {
    return query_device(id, &Device::get_ptp_status, status);
}

kiv_result_t kiv_get_tx_stream_status(uint8_t id, kiv_tx_stream_status_t* status) {
    return query_device(id, &Device::get_tx_stream_status, status);
}

kiv_result_t kiv_get_rx_stream_status(uint8_t id, kiv_rx_stream_status_t* status) {
    return query_device(id, &Device::get_rx_stream_status, status);
}

kiv_result_t kiv_get_epoch_and_2point(uint8_t id, uint64_t* a, uint64_t* b, uint64_t* c) {
    return query_device(id, &Device::get_epoch_and_2point, a, b, c);
}

// ---- Settings of one card -------------------------------------------------------------------------------

kiv_result_t kiv_set_ptp_config(uint8_t id, const kiv_net_config_t* net, const kiv_ptp_config_t* ptp) {
    return command_device(
        id,
        [id](Device& device, const kiv_net_config_t& to_net, const kiv_ptp_config_t& to_ptp) {
            const kiv_result_t result = device.reconfig_net_work(to_net, to_ptp);
            if (result == KIV_OK) store_configuration(id, to_net, to_ptp);
            return result;
        },
        net, ptp);
}

// ---- Flash of one card ----------------------------------------------------------------------------------

kiv_result_t kiv_write_flash_image(uint8_t id, const char* path) {
    return call_device(id, [path](Device& device) { return write_flash_image(device, path); });
}

kiv_result_t kiv_get_flash_write_status(uint8_t id, kiv_flash_status_t* status) {
    return query_device(id, &Device::get_flash_write_status, status);
}

kiv_result_t kiv_select_flash_slot(uint8_t id, const kiv_flash_slot_t* slot) {
    return command_device(id, &Device::select_flash_slot, slot);
}

kiv_result_t kiv_get_flash_config(uint8_t id, kiv_flash_config_t* config) {
    return query_device(id, &Device::get_flash_config, config);
}

// ---- Events of one card ---------------------------------------------------------------------------------

kiv_result_t kiv_register_callback_func(uint8_t id, kiv_event_callback_t callback, void* user) {
    return call_device(id, [=](Device& device) -> kiv_result_t {
        if (callback == nullptr) return null_argument();
        device.addCallback(callback, user);
        return KIV_OK;
    });
}

kiv_result_t kiv_unregister_callback_func(uint8_t id) {
    return call_device(id, [](Device& device) -> kiv_result_t {
        device.removeCallback();
        return KIV_OK;
    });
}

kiv_result_t kiv_enable_event(uint8_t id, kiv_event_type_t event) {
    return call_device(id, [=](Device& device) -> kiv_result_t {
        device.enableEvent(event);
        return KIV_OK;
    });
}

kiv_result_t kiv_disable_event(uint8_t id, kiv_event_type_t event) {
    return call_device(id, [=](Device& device) -> kiv_result_t {
        device.disableEvent(event);
        return KIV_OK;
    });
}
