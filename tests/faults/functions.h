/// Every function of the C interface and of hpsClient, what it asks, and what it gives when that fails.
#ifndef KIV_TEST_FAULT_FUNCTIONS_H
#define KIV_TEST_FAULT_FUNCTIONS_H

#include <kiv/kivDext.h>
#include <kiv/kiv_api.h>

#include <kiv/hpsClient.h>
#include "api/FoundCards.h"
#include "faults/seams.h"
#include "kivHpsClientKit/CardServer.h"
#include "support/DriverFault.h"
#include "support/Test.h"

/// A virtual card that a scan has found, and a client of its management server.
struct Bench {
    Bench() { start(); }
    ~Bench() { kiv_close(); }

    /// A fresh driver process and server, found anew.
    void start() {
        simulator = nullptr;
        auto card = kivsim::believable_card(1);
        card.flash_ms = 1;
        simulator = std::make_unique<RunningSimulator>(std::vector{card});
        port = (*simulator)->server_addresses()[0].substr(10);
        write_file(configuration,
                   R"({"devices": [{"hps_access": {"ifnames": ["en9"], "ip_addr": "127.0.0.1", "port": )" +
                       port + R"(}, "maceth0": {"ip_addr": "10.9.9.9"}}]})");
        write_file(image, std::string(1000, 'x'));
        EXPECT_EQ(kivDext_new(), 0);
        kiv_scan_t scan{};
        EXPECT_EQ(kiv_scan(&scan), KIV_OK);
        EXPECT_EQ(client.open_config("127.0.0.1", port, false), 0);
        log.again();
    }

    const TemporaryDirectory directory;
    const std::string configuration = directory / "configuration", image = directory / "image",
                      saved = directory / "saved";
    std::string port;
    std::unique_ptr<RunningSimulator> simulator;
    hpsClient client;
    CapturedLog log;
};

inline std::string shown(kiv_result_t result) {
    const std::string name = kiv_result_name(result);
    return name == "KIV_OK" ? "OK" : name == "unknown" ? "status" : name.substr(8);
}
inline std::string shown(int32_t result) {
    return std::to_string(result);
}
inline std::string shown(const HttpResult& result) {
    return result.success ? "success" : result.error;
}

template <auto entry_point, typename Record>
std::string of_card(Bench&) {
    return shown(ask<entry_point, Record>(1));
}
/// The result, and how many cards are listed.
template <auto entry_point, typename Record>
std::string of_scan(Bench&) {
    Record found{};
    const kiv_result_t result = entry_point(&found);
    return shown(result) + (result == KIV_OK ? " " + std::to_string(found.count) : "");
}
inline std::string of_each_card(Bench&) {
    kiv_scan_each_t found{};
    const kiv_result_t result = kiv_scan_each(nullptr, 0, &found);
    return shown(result) + (found.count == 0 ? " 0" : " " + shown(found.cards[0].result));
}
inline void no_event(uint8_t, kiv_event_type_t, const void*, void*) {}
inline void no_progress(uint64_t, uint64_t, void*) {}

/// What the function gives for each kind of answer to its request.
struct Answers {
    const char *none, *status, *unreadable, *number, *text, *array, *object;
};
struct Asked {
    uint32_t selector;
    const char* failed;    ///< What the function gives when the call fails ...
    const char* cut = "";  ///< ... and when its reply is cut to nothing; "": as when all is well.
};
struct Function {
    const char* name;
    std::string (*call)(Bench&);
    const char* good;             ///< What it gives when all is well.
    std::vector<Asked> driver{};  ///< What it asks the driver.
    const char* gone = "";        ///< What it gives when the driver process is gone, and with it the servers.
    const char* request = "";     ///< What it asks the management server: method and path.
    Answers answers{};
    const char* wrong = nullptr;  ///< A change of the payload to values of wrong types ...
    const char* misread = "";     ///< ... and what the function gives then.
    long seconds = 7;             ///< How long a request without an answer holds it up at most.
};

// clang-format off
//                          none    status  unread. number    text      array     object
constexpr Answers kScan     {"FAILED","FAILED","FAILED","FAILED","FAILED","FAILED","FAILED"};
constexpr Answers kEachCard {"OK REST","OK REST","OK REST","OK REST","OK REST","OK REST","OK REST"};
constexpr Answers kInterfaces{"REST", "REST", "REST", "REST",   "REST",   "REST",   "REST"};
constexpr Answers kDocument {"REST", "REST", "REST", "FAILED", "FAILED", "FAILED", "FAILED"};
constexpr Answers kSensors  {"REST", "REST", "REST", "FAILED", "FAILED", "OK",     "FAILED"};
constexpr Answers kState    {"REST", "REST", "REST", "FAILED", "OK",     "FAILED", "FAILED"};
constexpr Answers kIdle     {"REST", "REST", "REST", "FAILED", "BUSY",   "FAILED", "FAILED"};
constexpr Answers kDone     {"REST", "REST", "OK",   "OK",     "OK",     "OK",     "OK"};
constexpr Answers kCommand  {"-1",   "-1",   "0",    "0",      "0",      "0",      "0"};
constexpr Answers kAnyJson  {"-1",   "-1",   "-1",   "0",      "0",      "0",      "0"};
constexpr Answers kObject   {"-1",   "-1",   "-1",   "-1",     "-1",     "-1",     "-1"};
constexpr Answers kRecord   {"-1",   "-1",   "-1",   "throws", "throws", "throws", "throws"};
constexpr Answers kFlag     {"no",   "no",   "no",   "no",     "no",     "no",     "no"};
constexpr Answers kList     {"failed", "failed", "failed", "list", "list", "list", "list"};
constexpr Answers kWord     {"",     "",     "",     "throws", "text",   "throws", "throws"};
constexpr Answers kResult   {"retry over", "http status", "success", "success", "success", "success", "success"};
constexpr Answers kNoSuccess{"retry over", "http status", "http status 400", "http status 400", "http status 400", "http status 400", "http status 400"};
constexpr Answers kUnnoticed{"0",    "0",    "0",    "0",      "0",      "0",      "0"};

constexpr const char *kNetworks = "GET /hps/info/networks", *kSensorReport = "GET /hps/hwmon/info", *kMaster = "GET /hps/ptp/master",
    *kManagement = "GET /hps/ptp/management", *kReconfig = "POST /hps/control/network/reconfig", *kStatus = "GET /hps/firmware/status",
    *kUpload = "POST /hps/firmware/upload", *kStart = "PATCH /hps/firmware/control", *kSwitch = "PATCH /hps/firmware/switch",
    *kSlots = "GET /hps/firmware/info", *kJoin = "POST /hps/control/igmp", *kLeave = "DELETE /hps/control/igmp",
    *kGroups = "GET /hps/control/igmp", *kCapture = "POST /hps/control/tcpdump", *kLog = "GET /hps/download/log",
    *kRegister = "POST /alive/", *kRefresh = "PATCH /alive/";
constexpr const char *kBadInterface = R"({"interfaces": [{"if_name": 5}]})", *kBadLabel = R"([{"label": 5}])";
#define KIV_CALL(...) []([[maybe_unused]] Bench& b) -> std::string { __VA_ARGS__; }

inline const kiv_net_config_t kNet{};
inline const kiv_ptp_config_t kPtp{};
inline const hps_igmp kGroup{"239.1.1.1", "maceth0", ""};
inline const std::string kMembership = R"({"settings": [{"pid": 1, "dst_ip_addr": "239.1.1.1", "if_name": "maceth0", "ssm_source_addr": ""}]})";
inline const std::vector<Asked> kOpening = {{wire::kLoadBootConf, "OK 1"}, {wire::kGetDeviceConf, "FAILED", "FAILED"},
                                            {wire::kInit, "FAILED"}, {wire::kReadPci64, "FAILED"}, {wire::kDeinit, "OK 1"}};

inline const Function kFunctions[] = {
    // ---- The C interface: what asks the driver, the server or both
    {"kiv_scan", of_scan<kiv_scan, kiv_scan_t>, "OK 1", kOpening, "OK 0", kNetworks, kScan, kBadInterface, "FAILED"},
    {"kiv_scan_internal", of_scan<kiv_scan_internal, kiv_scan_internal_t>, "OK 1", kOpening, "OK 0", kNetworks, kScan, kBadInterface, "FAILED"},
    {"kiv_scan_each", of_each_card, "OK OK", {{wire::kLoadBootConf, "OK OK"}, {wire::kGetDeviceConf, "OK REST", "OK REST"}, {wire::kInit, "OK FAILED"},
      {wire::kReadPci64, "OK FAILED"}, {wire::kDeinit, "OK OK"}}, "OK 0", kNetworks, kEachCard, kBadInterface, "OK FAILED"},
    {"kiv_get_card_info", of_card<kiv_get_card_info, kiv_card_info_t>, "OK", {{wire::kReadPci64, "FAILED"}}, "FAILED"},
    {"kiv_get_card_status", of_card<kiv_get_card_status, kiv_card_status_t>, "OK", {{wire::kGetPciLinkInfo, "OK"}}, "REST", kSensorReport, kSensors, kBadLabel, "FAILED"},
    {"kiv_get_media_net_config", of_card<kiv_get_media_net_config, kiv_net_config_t>, "OK", {}, "", kNetworks, kInterfaces, kBadInterface, "FAILED"},
    {"kiv_get_ptp_net_config", of_card<kiv_get_ptp_net_config, kiv_net_config_t>, "OK", {}, "", kNetworks, kInterfaces, kBadInterface, "FAILED"},
    {"kiv_get_net_status", of_card<kiv_get_net_status, kiv_net_status_t>, "OK", {{wire::kReadPci32, "FAILED"}, {wire::kReadPci64, "FAILED"}}, "FAILED"},
    {"kiv_get_ptp_status", of_card<kiv_get_ptp_status, kiv_ptp_status_t>, "OK", {{wire::kReadPci64, "FAILED"}, {wire::kGetPtpEpochTime, "FAILED"}}, "FAILED",
      kMaster, kDocument, R"({"grandmasterIdentity": 5})", "FAILED"},
    {"kiv_get_tx_stream_status", of_card<kiv_get_tx_stream_status, kiv_tx_stream_status_t>, "OK", {{wire::kReadPci32, "FAILED"}, {wire::kGetUseResourceData, "FAILED"}}, "FAILED"},
    {"kiv_get_rx_stream_status", of_card<kiv_get_rx_stream_status, kiv_rx_stream_status_t>, "OK", {{wire::kReadPci32, "FAILED"}, {wire::kGetUseResourceData, "FAILED"}}, "FAILED"},
    {"kiv_get_epoch_and_2point", KIV_CALL(uint64_t t = 0; return shown(kiv_get_epoch_and_2point(1, &t, &t, &t))), "OK", {{wire::kGetPtpEpochTimeAndSystemTime, "status"}}, "status"},
    {"kiv_set_ptp_config", KIV_CALL(return shown(kiv_set_ptp_config(1, &kNet, &kPtp))), "OK", {}, "", kReconfig, kDone},
    {"kiv_write_flash_image", KIV_CALL(return shown(kiv_write_flash_image(1, b.image.c_str()))), "OK", {}, "", kStatus, kIdle, nullptr, "", 36},
    {"kiv_write_flash_image", KIV_CALL(return shown(kiv_write_flash_image(1, b.image.c_str()))), "OK", {}, "", kUpload, kDone, nullptr, "", 36},
    {"kiv_write_flash_image", KIV_CALL(return shown(kiv_write_flash_image(1, b.image.c_str()))), "OK", {}, "", kStart, kDone, nullptr, "", 36},
    {"kiv_write_flash_image_with_progress", KIV_CALL(return shown(kiv_write_flash_image_with_progress(1, b.image.c_str(), no_progress, nullptr))), "OK", {}, "", kStatus, kIdle, nullptr, "", 36},
    {"kiv_write_flash_image_with_progress", KIV_CALL(return shown(kiv_write_flash_image_with_progress(1, b.image.c_str(), no_progress, nullptr))), "OK", {}, "", kUpload, kDone, nullptr, "", 36},
    {"kiv_write_flash_image_with_progress", KIV_CALL(return shown(kiv_write_flash_image_with_progress(1, b.image.c_str(), no_progress, nullptr))), "OK", {}, "", kStart, kDone, nullptr, "", 36},
    {"kiv_get_flash_write_status", of_card<kiv_get_flash_write_status, kiv_flash_status_t>, "OK", {}, "", kStatus, kState},
    {"kiv_select_flash_slot", of_card<kiv_select_flash_slot, kiv_flash_slot_t>, "OK", {}, "", kSwitch, kDone},
    {"kiv_get_flash_config", of_card<kiv_get_flash_config, kiv_flash_config_t>, "OK", {}, "", kSlots, kDocument, R"({"User1": 5})", "FAILED"},
    // ---- hpsClient: what asks the server
    {"hpsClient::open_config", KIV_CALL(return shown(b.client.open_config("127.0.0.1", b.port, false))), "0", {}, "", kNetworks, kObject, kBadInterface, "throws"},
    {"hpsClient::open_config_ifname", KIV_CALL(return shown(b.client.open_config_ifname(b.configuration, false, "en9"))), "0", {}, "", kNetworks, kObject, kBadInterface, "throws"},
    {"hpsClient::open_config_ipaddr", KIV_CALL(return shown(b.client.open_config_ipaddr(b.configuration, false, "10.9.9.9"))), "0", {}, "", kNetworks, kObject, kBadInterface, "throws"},
    {"hpsClient::_open_config", KIV_CALL(return shown(b.client._open_config(false))), "0", {}, "", kNetworks, kObject, kBadInterface, "throws"},
    // The thread that registers meets the fault; the one that reads the PTP documents does not, or this would wait for it.
    {"hpsClient::setting_thread", KIV_CALL(hpsClient client; hps_ptp_sm digest{}; if (client.open_config("127.0.0.1", b.port, true) != 0) return "no server";
      wait_until([] { return g_seam.attempts > 0; }); return shown(client.get_hps_ptp_sm_backgroud(digest))), "0", {}, "", kRegister, kUnnoticed, nullptr, "", 20},
    {"hpsClient::get_interface_info", KIV_CALL(return shown(b.client.get_interface_info())), "0", {}, "", kNetworks, kObject, kBadInterface, "throws"},
    {"hpsClient::get_interface_info", KIV_CALL(std::vector<inteface_info> list; return shown(b.client.get_interface_info(list))), "0", {}, "", kNetworks, kObject, kBadInterface, "throws"},
    {"hpsClient::exist_ip_address", KIV_CALL(return b.client.exist_ip_address("127.0.0.1") ? "yes" : "no"), "yes", {}, "", kNetworks, kFlag, R"({"interfaces": [{"ip_addr": 5}, 5]})", "no"},
    {"hpsClient::reconfig_network", KIV_CALL(return shown(b.client.reconfig_network("macptp=0,1,-2,3,4"))), "0", {}, "", kReconfig, kCommand},
    {"hpsClient::igmp_join", KIV_CALL(return shown(b.client.igmp_join(kGroup))), "0", {}, "", kJoin, kCommand},
    {"hpsClient::igmp_leave", KIV_CALL(b.client.igmp_join(kGroup); return shown(b.client.igmp_leave(kGroup))), "0", {}, "", kLeave, kCommand, nullptr, "", 13},
    {"hpsClient::get_igmp_list", KIV_CALL(return b.client.get_igmp_list().starts_with("Fail") ? "failed" : "list"), "list", {}, "", kGroups, kList, R"({"list": [{"pid": "x", "dst_ip_addr": 5}]})", "throws"},
    {"hpsClient::get_hwmon_info", KIV_CALL(std::string text; return shown(b.client.get_hwmon_info(text, true))), "0", {}, "", kSensorReport, kAnyJson, kBadLabel, "0"},
    {"hpsClient::get_hwmon_info", KIV_CALL(std::string text; return shown(b.client.get_hwmon_info(text, false))), "0", {}, "", kSensorReport, kAnyJson, kBadLabel, "throws"},
    {"hpsClient::start_tcpdump", KIV_CALL(return shown(b.client.start_tcpdump("mactun", 1))), "0", {}, "", kCapture, kCommand},
    {"hpsClient::get_log_tmp", KIV_CALL(return shown(b.client.get_log_tmp(b.saved))), "0", {}, "", kLog, kCommand, nullptr, "", 181},
    {"hpsClient::get_ptp_master", KIV_CALL(std::string text; return shown(b.client.get_ptp_master(text))), "0", {}, "", kMaster, kAnyJson},
    {"hpsClient::get_ptp_master", KIV_CALL(PtpMaster master; return shown(b.client.get_ptp_master(master))), "0", {}, "", kMaster, kRecord, R"({"currentUtcOffset": "x"})", "throws"},
    {"hpsClient::get_ptp_management", KIV_CALL(std::string text; return shown(b.client.get_ptp_management(text))), "0", {}, "", kManagement, kAnyJson},
    {"hpsClient::get_ptp_management", KIV_CALL(PtpManagement management; return shown(b.client.get_ptp_management(management))), "0", {}, "", kManagement, kRecord, R"({"daylightSaving": 5})", "throws"},
    {"hpsClient::registry_alive", KIV_CALL(return shown(b.client.registry_alive(7))), "0", {}, "", kRegister, kCommand},
    {"hpsClient::keep_alive", KIV_CALL(b.client.registry_alive(7); return shown(b.client.keep_alive(7))), "0", {}, "", kRefresh, kCommand, nullptr, "", 13},
    {"hpsClient::fw_upload", KIV_CALL(return shown(b.client.fw_upload(b.image))), "0", {}, "", kUpload, kCommand, nullptr, "", 31},
    {"hpsClient::fw_upload", KIV_CALL(return shown(b.client.fw_upload(b.image, [](uint64_t, uint64_t) {}))), "0", {}, "", kUpload, kCommand, nullptr, "", 31},
    {"hpsClient::fw_start", KIV_CALL(return shown(b.client.fw_start(false, ""))), "0", {}, "", kStart, kCommand},
    {"hpsClient::get_fw_status", KIV_CALL(return b.client.get_fw_status()), "idle", {}, "", kStatus, kWord},
    {"hpsClient::get_firmware_info", KIV_CALL(std::string one; std::string two; return shown(b.client.get_firmware_info(one, two))), "0", {}, "", kSlots, kAnyJson, R"({"User1": 5})", "throws"},
    {"hpsClient::fw_switch", KIV_CALL(return shown(b.client.fw_switch(0))), "0", {}, "", kSwitch, kCommand},
    {"hpsClient::http_get", KIV_CALL(return shown(b.client.http_get("/hps/firmware/status"))), "success", {}, "", kStatus, kResult},
    {"hpsClient::http_get", KIV_CALL(return shown(b.client.http_get("/hps/download/log", b.saved))), "success", {}, "", kLog, kResult, nullptr, "", 181},
    {"hpsClient::http_post", KIV_CALL(return shown(b.client.http_post("/alive/7"))), "success", {}, "", kRegister, kResult},
    {"hpsClient::http_post", KIV_CALL(return shown(b.client.http_post("/hps/control/igmp", kMembership))), "success", {}, "", kJoin, kResult},
    {"hpsClient::http_post_file", KIV_CALL(return shown(b.client.http_post_file("/hps/firmware/upload", b.image))), "success", {}, "", kUpload, kResult, nullptr, "", 31},
    {"hpsClient::http_post_file", KIV_CALL(return shown(b.client.http_post_file("/hps/firmware/upload", b.image, [](uint64_t, uint64_t) {}))), "success", {}, "", kUpload, kResult, nullptr, "", 31},
    {"hpsClient::http_patch", KIV_CALL(b.client.http_post("/alive/7"); return shown(b.client.http_patch("/alive/7"))), "success", {}, "", kRefresh, kResult, nullptr, "", 13},
    {"hpsClient::http_patch", KIV_CALL(return shown(b.client.http_patch("/hps/firmware/switch", R"({"image": 0})"))), "success", {}, "", kSwitch, kResult},
    // Without a body there is nothing to leave: the card refuses.
    {"hpsClient::http_delete", KIV_CALL(return shown(b.client.http_delete("/hps/control/igmp"))), "http status 400", {}, "", kLeave, kNoSuccess},
    {"hpsClient::http_delete", KIV_CALL(return shown(b.client.http_delete("/hps/control/igmp", kMembership))), "success", {}, "", kLeave, kResult},
    // ---- What asks nobody, and so does not notice
    {"kiv_get_sw_version", KIV_CALL(kiv_sw_version_t version; return shown(kiv_get_sw_version(&version))), "OK"},
    {"kiv_log_print", KIV_CALL(return shown(kiv_log_print(KIV_LOG_LEVEL_INFO, "line"))), "OK"},
    {"kiv_get_id_selected_ptp_card", KIV_CALL(uint8_t id = 0; return shown(kiv_get_id_selected_ptp_card(&id))), "FAILED"},
    {"kiv_get_ptp_config", of_card<kiv_get_ptp_config, kiv_ptp_config_t>, "OK"},
    {"kiv_register_callback_func", KIV_CALL(return shown(kiv_register_callback_func(1, no_event, nullptr))), "OK"},
    {"kiv_unregister_callback_func", KIV_CALL(return shown(kiv_unregister_callback_func(1))), "OK"},
    {"kiv_enable_event", KIV_CALL(return shown(kiv_enable_event(1, KIV_EVENT_LINK))), "OK"},
    {"kiv_disable_event", KIV_CALL(return shown(kiv_disable_event(1, KIV_EVENT_LINK))), "OK"},
    {"hpsClient::get_version", KIV_CALL(uint16_t v = 0; b.client.get_version(v, v, v); return ""), ""},
    {"hpsClient::get_url", KIV_CALL(return b.client.get_url().substr(0, 17)), "http://127.0.0.1:"},
    {"hpsClient::get_address", KIV_CALL(return b.client.get_address()), "127.0.0.1"},
    {"hpsClient::interfaces", KIV_CALL(return b.client.interfaces().empty() ? "none" : "some"), "some"},
    {"hpsClient::get_hps_ptp_sm_backgroud", KIV_CALL(hps_ptp_sm digest{}; return shown(b.client.get_hps_ptp_sm_backgroud(digest))), "-1"},
    {"hpsClient::convert2string", KIV_CALL(return hpsClient::convert2string(1)), "0.0.0.1"},
    {"kivDext_get_selected_ptp_card", KIV_CALL(return shown(int32_t{kivDext_get_selected_ptp_card()} / 8)), "0"},
    {"kivDext_open_hps", KIV_CALL(return shown(kivDext_open_hps())), "-1"},
    {"kivDext_open_st2110", KIV_CALL(return shown(kivDext_open_st2110())), "-1"},
    {"kivDext_close", KIV_CALL(return shown(kivDext_close())), "-1"},
    {"kivDext_free", KIV_CALL(return shown(kivDext_free())), "-1"},
    {"kivDext_get_epoch_and_system_time", KIV_CALL(return shown(kivDext_get_epoch_and_system_time())), "-1"},
    {"kivDext_hps_pciread64", KIV_CALL(return shown(kivDext_hps_pciread64())), "-1"},
    {"kivDext_st2110_pciread64", KIV_CALL(return shown(kivDext_st2110_pciread64())), "-1"},
    // The configuration file of the whole machine.
    {"kiv_open", nullptr, ""},
    {"kiv_configure_save", nullptr, ""},
    {"kiv_close", KIV_CALL(return shown(kiv_close())), "OK"},
    // Last: it takes leave of the driver for the whole process.
    {"kivDext_new", KIV_CALL(return shown(kivDext_new())), "0", {{wire::kLoadBootConf, "0"}, {wire::kGetDeviceConf, "0"}, {wire::kDeinit, "0"}}, "1"},
};
// clang-format on
#undef KIV_CALL

#endif
