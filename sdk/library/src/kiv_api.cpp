#include <kiv/kiv_api.h>

#include <mutex>
#include <string>
#include <utility>

#include "config/recordMapping.h"
#include "device/flashWrite.h"
#include "gate.h"

using kiv::guarded;
using kiv::kApiSource;
using kiv::api::call_device;
using kiv::api::command_device;
using kiv::api::null_argument;
using kiv::api::Process;
using kiv::api::query_device;
using kiv::config::CardConfig;
using kiv::device::Device;

namespace {

/// Of the application's lines, which log readers tell by it: docs/oddities.md.
constexpr int kApplicationLine = 528;

}  // namespace

// ---- Life cycle -----------------------------------------------------------------------------------------

kiv_result_t kiv_open(const kiv_log_config_t* log_config) {
    Process& process = Process::instance();
    if (Process::inherited()) return KIV_ERR_NOT_OPENED;
    kivLog_open(log_config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
    const std::string path = CardConfig::getPath();
    // What this throws, and the save below, reaches the application: docs/oddities.md.
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
    if (Process::inherited()) return KIV_ERR_NOT_OPENED;
    const std::lock_guard lock(process.config_mutex);
    process.g_CardConfig.save_to_file(CardConfig::getPath());
    return KIV_OK;
}

namespace {

/// Apart from kiv_log_print, which needs no stack for a line that is dropped.
[[gnu::noinline]] kiv_result_t print(kiv_log_level_t level, const char* message) noexcept {
    return guarded([&]() -> kiv_result_t {
        if (Process::inherited()) return KIV_ERR_NOT_OPENED;
        if (message == nullptr) return null_argument();
        kivLog_dispatch(level, kApiSource, kApplicationLine, message);
        return KIV_OK;
    });
}

}  // namespace

kiv_result_t kiv_log_print(kiv_log_level_t level, const char* message) {
    if (message != nullptr && kiv::log::is_dropped_at_once(level)) [[likely]]
        return KIV_OK;
    return print(level, message);
}

// ---- Discovery (the scan itself is in kiv_scan.cpp) -----------------------------------------------------

kiv_result_t kiv_get_id_selected_ptp_card(uint8_t* device_id) {
    return guarded([&]() -> kiv_result_t {
        Process& process = Process::instance();
        if (Process::inherited()) return KIV_ERR_NOT_OPENED;
        if (device_id == nullptr) return null_argument();
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
            Process& process = Process::instance();
            {
                const std::lock_guard lock(process.config_mutex);
                kiv::config::read_ptp_settings(process.g_CardConfig, id, out);
            }
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
            if (result != KIV_OK) return result;
            Process& process = Process::instance();
            const std::lock_guard lock(process.config_mutex);
            kiv::config::store_settings(process.g_CardConfig, id, to_net, to_ptp);
            return KIV_OK;
        },
        net, ptp);
}

// ---- Flash of one card ----------------------------------------------------------------------------------

kiv_result_t kiv_write_flash_image(uint8_t id, const char* path) {
    return call_device(id, [path](Device& device) { return kiv::device::write_flash_image(device, path); });
}

kiv_result_t kiv_write_flash_image_with_progress(uint8_t id, const char* path, kiv_upload_progress_t progress,
                                                 void* user) {
    return call_device(id, [=](Device& device) {
        if (progress == nullptr) return kiv::device::write_flash_image(device, path);
        return kiv::device::write_flash_image(
            device, path, [=](uint64_t sent, uint64_t total) { progress(sent, total, user); });
    });
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
