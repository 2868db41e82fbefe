#include "torture/scenarios.h"

#include <kiv/kivDext.h>
#include <kiv/kivDriverClient.h>
#include <kiv/kivDriverService.h>
#include <kiv/kiv_api.h>

#include <atomic>
#include <memory>

#include <kiv/LogManager.h>
#include <kiv/hpsClient.h>
#include "support/ControlAddress.h"
#include "support/Waiting.h"

namespace {

template <typename Record>
void query(Calls& calls, const char* name, kiv_result_t (*ask)(uint8_t, Record*)) {
    Record record{};
    calls.code(name, [&] { return ask(1, &record); });
}
#define KIV_QUERY(name) query(calls, #name, name)

/// Not what is tried: nothing that it asks for itself is refused.
void scan(Calls& calls) {
    kiv_scan_t found{};
    if (kiv_scan(&found) != KIV_OK) calls.complain("kiv_scan", "fails");
}
void close(Calls& calls) {
    calls.code("kiv_close", kiv_close);
}

void wait_for_flash() {
    wait_until([] {
        kiv_flash_status_t status = 1;
        return kiv_get_flash_write_status(1, &status) != KIV_OK || status == 0;
    });
}

void open_and_scan(Calls& calls, const Place&) {
    const kiv_log_config_t log{KIV_LOG_LEVEL_ERROR};
    calls.code_or_exception("kiv_open", [&] { return kiv_open(&log); });
    kiv_scan_t found{};
    calls.code("kiv_scan", [&] { return kiv_scan(&found); });
    kiv_scan_internal_t inside{};
    calls.code("kiv_scan_internal", [&] { return kiv_scan_internal(&inside); });
    kiv_scan_each_t each{};
    calls.code("kiv_scan_each", [&] { return kiv_scan_each(nullptr, 0, &each); });
    uint8_t id = 0;
    calls.code(
        "kiv_get_id_selected_ptp_card", [&] { return kiv_get_id_selected_ptp_card(&id); }, KIV_ERR_FAILED);
    calls.code("kiv_log_print", [] { return kiv_log_print(KIV_LOG_LEVEL_DEBUG, "a line"); });
    close(calls);
}

void read_everything(Calls& calls, const Place&) {
    scan(calls);
    KIV_QUERY(kiv_get_card_info);
    KIV_QUERY(kiv_get_card_status);
    KIV_QUERY(kiv_get_media_net_config);
    KIV_QUERY(kiv_get_ptp_net_config);
    KIV_QUERY(kiv_get_net_status);
    KIV_QUERY(kiv_get_ptp_config);
    KIV_QUERY(kiv_get_ptp_status);
    KIV_QUERY(kiv_get_tx_stream_status);
    KIV_QUERY(kiv_get_rx_stream_status);
    KIV_QUERY(kiv_get_flash_write_status);
    KIV_QUERY(kiv_get_flash_config);
    uint64_t times[3] = {};
    calls.code("kiv_get_epoch_and_2point",
               [&] { return kiv_get_epoch_and_2point(1, &times[0], &times[1], &times[2]); });
    close(calls);
}

void settings(Calls& calls, const Place&) {
    scan(calls);
    kiv_net_config_t net{};
    kiv_ptp_config_t ptp{};
    const kiv_flash_slot_t slot = 0;
    calls.code("kiv_get_media_net_config", [&] { return kiv_get_media_net_config(1, &net); });
    calls.code("kiv_set_ptp_config", [&] { return kiv_set_ptp_config(1, &net, &ptp); });
    calls.code("kiv_select_flash_slot", [&] { return kiv_select_flash_slot(1, &slot); });
    calls.code_or_exception("kiv_configure_save", kiv_configure_save);
    calls.code_or_exception("kiv_open", [] { return kiv_open(nullptr); });
    close(calls);
}

void flash_write(Calls& calls, const Place& place) {
    scan(calls);
    wait_for_flash();
    uint64_t most = 0;
    calls.code("kiv_write_flash_image_with_progress", [&] {
        return kiv_write_flash_image_with_progress(
            1, place.image.c_str(),
            [](uint64_t sent, uint64_t, void* user) { *static_cast<uint64_t*>(user) = sent; }, &most);
    });
    wait_for_flash();
    close(calls);
}

void events(Calls& calls, const Place& place) {
    std::atomic<int> heard{0};
    const auto hear = [](uint8_t, kiv_event_type_t, const void*, void* user) {
        ++*static_cast<std::atomic<int>*>(user);
    };
    ask_control(place.control, "PATCH", "", R"({"links": [true, true]})");
    scan(calls);
    const bool registered =
        calls.code("kiv_register_callback_func", [&] { return kiv_register_callback_func(1, hear, &heard); });
    bool enabled = false;
    for (const kiv_event_type_t event : {KIV_EVENT_PTP, KIV_EVENT_HWMON, KIV_EVENT_LINK})
        enabled = calls.code("kiv_enable_event", [&] { return kiv_enable_event(1, event); });
    // The first look at the links is a change.
    if (registered && enabled && calls.may_wait() && !wait_until([&] { return heard > 0; }))
        calls.complain("events", "do not come");
    calls.code("kiv_disable_event", [] { return kiv_disable_event(1, KIV_EVENT_LINK); });
    calls.code("kiv_unregister_callback_func", [] { return kiv_unregister_callback_func(1); });
    close(calls);
}

void driver_buffers(Calls& calls, const Place&) {
    calls.code("kivDext_new", kivDext_new);
    kivDriverClientList clients;
    calls.code_or_exception(
        "enumerateDevices",
        [&] {
            clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
            return clients.size();
        },
        2);
    if (clients.empty()) return;
    kivDriverClient& client = *clients[0];
    uint64_t address = 0, size = 0;
    dextBuffer buffer{};
    calls.code("open", [&] { return client.open(true); });
    calls.code_or_exception("set_callback", [&] {
        client.set_callback([](const InterruptEvent&) {});
        return 0;
    });
    calls.code("enable_interrupt", [&] { return client.enable_interrupt(1); });
    calls.code("map_pci", [&] { return client.map_pci(1, &address, &size); });
    calls.code("allocate_buffer", [&] { return client.allocate_buffer(77, 4096, 3); });
    calls.code_or_exception("get_buffer", [&] { return client.get_buffer(77, buffer); });
    calls.code("free_buffer", [&] { return client.free_buffer(); });
    calls.code("unmap", [&] { return client.unmap(address); });
    calls.code("close", [&] { return client.close(); });
    const Counted counted;
    clients.clear();
}

void management_server(Calls& calls, const Place& place) {
    std::unique_ptr<hpsClient> client;
    calls.code_or_exception("hpsClient", [&] { return client = std::make_unique<hpsClient>(), 0; });
    if (!client) return;
    const std::string address = "127.0.0.1", image = place.image, scratch = place.scratch;
    hps_ptp_sm digest{};
    PtpMaster master{};
    const hps_igmp group{"239.1.1.1", "maceth0", ""};
    std::string text;
    calls.code_or_exception("open_config", [&] { return client->open_config(address, place.port, true); });
    calls.code_or_exception("get_ptp_master", [&] { return client->get_ptp_master(master); });
    calls.code_or_exception("get_hwmon_info", [&] { return client->get_hwmon_info(text, false); });
    calls.code_or_exception("igmp_join", [&] { return client->igmp_join(group); });
    calls.code_or_exception("get_igmp_list", [&] { return client->get_igmp_list().empty(); });
    calls.code_or_exception("igmp_leave", [&] { return client->igmp_leave(group); });
    calls.code_or_exception("get_log_tmp", [&] { return client->get_log_tmp(scratch); });
    calls.code_or_exception("fw_upload", [&] { return client->fw_upload(image); });
    calls.code_or_exception("digest", [&] { return client->get_hps_ptp_sm_backgroud(digest); });
    const Counted counted;
    client = nullptr;
}

void logs(Calls& calls, const Place& place) {
    const kiv_log_config_t level{KIV_LOG_LEVEL_DEBUG};
    kiv::log::LogConfig back_end{KIV_LOG_LEVEL_DEBUG, place.scratch, {"file", "os_log", "syslog"}, "a", "b"};
    calls.code("kivLog_open_with_config", [&] {
        return kivLog_open_with_config(&level, KIV_LOG_SINK_DEFAULT, nullptr, nullptr, back_end);
    });
    calls.code("kivLog_print", [] { return kivLog_print(KIV_LOG_LEVEL_ERROR, "a line"); });
    std::atomic<int> lines{0};
    const auto take = [](kiv_log_level_t, const char*, void* user) {
        ++*static_cast<std::atomic<int>*>(user);
    };
    calls.code("kivLog_open", [&] { return kivLog_open(&level, KIV_LOG_SINK_CALLBACK, take, &lines); });
    calls.code("kivLog_print", [] { return kivLog_print(KIV_LOG_LEVEL_ERROR, "another"); });
    calls.code("kivLog_close", kivLog_close);
}

}  // namespace

const std::vector<Scenario> kScenarios = {
    {"open and scan", open_and_scan},
    {"read everything", read_everything},
    {"settings", settings},
    {"flash write", flash_write},
    {"events", events},
    {"driver buffers", driver_buffers},
    {"management server", management_server},
    {"log", logs},
};
