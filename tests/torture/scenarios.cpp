#include "torture/scenarios.h"

#include <kiv/kivDext.h>
#include <kiv/kivDriverClient.h>
#include <kiv/kivDriverService.h>
#include <kiv/kiv_api.h>

#include <kiv/LogManager.h>
#include <kiv/hpsClient.h>
#include "support/ControlAddress.h"

namespace {

// Of what stands beside them, nothing that this thread asks for is refused.
#define KIV_CODE(...) calls.code(#__VA_ARGS__, [&] { return __VA_ARGS__; })
#define KIV_CODE_OR_EXCEPTION(...) calls.code<true>(#__VA_ARGS__, [&] { return __VA_ARGS__; })

template <typename Record>
kiv_result_t query(kiv_result_t (*ask)(uint8_t, Record*)) {
    Record record{};
    return ask(1, &record);
}

template <typename Record>
kiv_result_t scan(kiv_result_t (*ask)(Record*)) {
    Record record{};
    return ask(&record);
}

void open_and_scan(Calls& calls, const Place&) {
    const kiv_log_config_t log{KIV_LOG_LEVEL_ERROR};
    kiv_scan_each_t each{};
    KIV_CODE_OR_EXCEPTION(kiv_open(&log));
    KIV_CODE(scan(kiv_scan));
    KIV_CODE(scan(kiv_scan_internal));
    KIV_CODE(kiv_scan_each(nullptr, 0, &each));
    calls.code(
        "selected card", [] { return scan(kiv_get_id_selected_ptp_card); }, KIV_ERR_FAILED);
    KIV_CODE(kiv_log_print(KIV_LOG_LEVEL_DEBUG, "a line"));
    KIV_CODE(kiv_close());
}

void read_everything(Calls& calls, const Place&) {
    uint64_t times[3] = {};
    EXPECT_EQ(scan(kiv_scan), KIV_OK);
    KIV_CODE(query(kiv_get_card_info));
    KIV_CODE(query(kiv_get_card_status));
    KIV_CODE(query(kiv_get_media_net_config));
    KIV_CODE(query(kiv_get_ptp_net_config));
    KIV_CODE(query(kiv_get_net_status));
    KIV_CODE(query(kiv_get_ptp_config));
    KIV_CODE(query(kiv_get_ptp_status));
    KIV_CODE(query(kiv_get_tx_stream_status));
    KIV_CODE(query(kiv_get_rx_stream_status));
    KIV_CODE(query(kiv_get_flash_write_status));
    KIV_CODE(query(kiv_get_flash_config));
    KIV_CODE(kiv_get_epoch_and_2point(1, &times[0], &times[1], &times[2]));
    KIV_CODE(kiv_close());
}

void settings(Calls& calls, const Place&) {
    kiv_net_config_t net{};
    kiv_ptp_config_t ptp{};
    const kiv_flash_slot_t slot = 0;
    EXPECT_EQ(scan(kiv_scan), KIV_OK);
    KIV_CODE(kiv_get_media_net_config(1, &net));
    KIV_CODE(kiv_set_ptp_config(1, &net, &ptp));
    KIV_CODE(kiv_select_flash_slot(1, &slot));
    KIV_CODE_OR_EXCEPTION(kiv_configure_save());
    KIV_CODE_OR_EXCEPTION(kiv_open(nullptr));
    KIV_CODE(kiv_close());
}

void flash_write(Calls& calls, const Place& place) {
    const char* const image = place.image.c_str();
    EXPECT_EQ(scan(kiv_scan), KIV_OK);
    EXPECT_TRUE(wait_until([] {
        kiv_flash_status_t status = 1;
        return kiv_get_flash_write_status(1, &status) != KIV_OK || status == 0;
    }));
    KIV_CODE(kiv_write_flash_image_with_progress(
        1, image, [](uint64_t, uint64_t, void*) {}, nullptr));
    KIV_CODE(kiv_close());
}

void events(Calls& calls, const Place& place) {
    std::atomic<int> heard{0};
    const auto hear = [](uint8_t, kiv_event_type_t, const void*, void* user) {
        ++*static_cast<std::atomic<int>*>(user);
    };
    ask_control(place.control, "PATCH", "", R"({"links": [true, true]})");
    EXPECT_EQ(scan(kiv_scan), KIV_OK);
    const bool registered = KIV_CODE(kiv_register_callback_func(1, hear, &heard));
    bool enabled = false;
    for (const kiv_event_type_t event : {KIV_EVENT_PTP, KIV_EVENT_HWMON, KIV_EVENT_LINK})
        enabled = KIV_CODE(kiv_enable_event(1, event));
    // The first look at the links is a change.
    if (registered && enabled && !calls.for_good) {
        EXPECT_TRUE(wait_until([&] { return heard > 0; })) << "no events";
    }
    KIV_CODE(kiv_disable_event(1, KIV_EVENT_LINK));
    KIV_CODE(kiv_unregister_callback_func(1));
    KIV_CODE(kiv_close());
}

void driver_buffers(Calls& calls, const Place&) {
    kivDriverClientList clients;
    KIV_CODE(kivDext_new());
    KIV_CODE_OR_EXCEPTION((clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME)).size() != 2);
    if (clients.empty()) return;
    kivDriverClient& client = *clients[0];
    uint64_t address = 0, size = 0;
    dextBuffer buffer{};
    KIV_CODE(client.open(true));
    KIV_CODE_OR_EXCEPTION(client.set_callback([](const InterruptEvent&) {}), 0);
    KIV_CODE(client.enable_interrupt(1));
    KIV_CODE(client.map_pci(1, &address, &size));
    KIV_CODE(client.allocate_buffer(77, 4096, 3));
    KIV_CODE_OR_EXCEPTION(client.get_buffer(77, buffer));
    KIV_CODE(client.free_buffer());
    KIV_CODE(client.unmap(address));
    KIV_CODE(client.close());
    const Counted counted;
    clients.clear();
}

void management_server(Calls& calls, const Place& place) {
    std::unique_ptr<hpsClient> client;
    KIV_CODE_OR_EXCEPTION(client = std::make_unique<hpsClient>(), 0);
    if (!client) return;
    hps_ptp_sm digest{};
    PtpMaster master{};
    const hps_igmp group{"239.1.1.1", "maceth0", ""};
    std::string text;
    KIV_CODE_OR_EXCEPTION(client->open_config("127.0.0.1", place.port, true));
    KIV_CODE_OR_EXCEPTION(client->get_ptp_master(master));
    KIV_CODE_OR_EXCEPTION(client->get_hwmon_info(text, false));
    KIV_CODE_OR_EXCEPTION(client->igmp_join(group));
    KIV_CODE_OR_EXCEPTION(client->get_igmp_list().empty());
    KIV_CODE_OR_EXCEPTION(client->igmp_leave(group));
    KIV_CODE_OR_EXCEPTION(client->get_log_tmp(place.scratch));
    KIV_CODE_OR_EXCEPTION(client->fw_upload(place.image));
    KIV_CODE_OR_EXCEPTION(client->get_hps_ptp_sm_backgroud(digest));
    const Counted counted;
    client = nullptr;
}

void logs(Calls& calls, const Place& place) {
    const kiv_log_config_t level{KIV_LOG_LEVEL_DEBUG};
    kiv::log::LogConfig back_end{KIV_LOG_LEVEL_DEBUG, place.scratch, {"file", "os_log", "syslog"}, "a", "b"};
    const auto take = [](kiv_log_level_t, const char*, void*) {};
    KIV_CODE(kivLog_open_with_config(&level, KIV_LOG_SINK_DEFAULT, nullptr, nullptr, back_end));
    KIV_CODE(kivLog_print(KIV_LOG_LEVEL_ERROR, "a line"));
    KIV_CODE(kivLog_open(&level, KIV_LOG_SINK_CALLBACK, take, nullptr));
    KIV_CODE(kivLog_print(KIV_LOG_LEVEL_ERROR, "another"));
    KIV_CODE(kivLog_close());
}

}  // namespace

const std::vector<Scenario> kScenarios = {
    {"open_and_scan", open_and_scan},
    {"read_everything", read_everything},
    {"settings", settings},
    {"flash_write", flash_write},
    {"events", events},
    {"driver_buffers", driver_buffers},
    {"management_server", management_server},
    {"log", logs},
};
