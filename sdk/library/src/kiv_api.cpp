#include "kiv_api.h"

#include <utility>

#include "gate.h"

using kiv::guarded;
using kiv::api::query_device;
using kiv::config::CardConfig;
using kiv::device::Device;

// ---- Life cycle -----------------------------------------------------------------------------------------

kiv_result_t kiv_open(const kiv_log_config_t* log_config) {
    kivLog_open(log_config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
    const std::string path = CardConfig::getPath();
    CardConfig fresh = CardConfig::load_from_file(path);
    g_CardConfig = std::move(fresh);
    kivLog_dispatch(KIV_LOG_LEVEL_INFO, kApiSource, __LINE__, "Starting KIV SDK: Config path={}", path);
    return KIV_OK;
}

kiv_result_t kiv_get_sw_version(kiv_sw_version_t* version) {
    if (version != nullptr) *version = {0, 1, 1};
    return KIV_OK;
}

kiv_result_t kiv_configure_save() {
    g_CardConfig.save_to_file(CardConfig::getPath());
    return KIV_OK;
}

kiv_result_t kiv_log_print(kiv_log_level_t level, const char* message) {
    return guarded([&]() -> kiv_result_t {
        if (message == nullptr) return kiv::api::null_argument();
        kivLog_dispatch(level, kApiSource, 528, message);
        return KIV_OK;
    });
}

// ---- Discovery (the scan itself is in kiv_scan.cpp) -----------------------------------------------------

kiv_result_t kiv_get_id_selected_ptp_card(uint8_t* device_id) {
    return guarded([&]() -> kiv_result_t {
        if (device_id == nullptr) return kiv::api::null_argument();
        if (!g_DeviceManager) return KIV_ERR_FAILED;
        for (const auto& device : g_DeviceManager->allDevices()) {
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
    return query_device(id, info, [](Device& device, auto& out) { return device.get_card_info(out); });
}

kiv_result_t kiv_get_media_net_config(uint8_t id, kiv_net_config_t* config) {
    return query_device(id, config,
                        [](Device& device, auto& out) { return device.get_media_net_config(out); });
}
