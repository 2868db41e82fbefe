// The endpoints: what each operation sends, and what it reads.
#include <utility>

#include <kiv/HpsHttpHelper.h>
#include <kiv/hpsClient.h>
#include "base/ipText.h"
#include "base/jsonFields.h"
#include "base/jsonText.h"
#include "kivHpsClientKit/ThreadManagerClientPolling.h"
#include "kivHpsClientKit/hpsEndpoints.h"
#include "log/kivLogDispatch.h"

using Json = nlohmann::ordered_json;
using hps::Method;

namespace {

constexpr const char* kBoardPower = "Board Power";
constexpr unsigned kIndentation = 4;

/// Temperatures, an empty line, power; values in JSON notation.
std::string hwmon_report(Json& sensors) {
    std::string temperatures = "Temperature\n";
    std::string power = "\nPower\n";
    for (Json& sensor : sensors) {
        if (!sensor.is_object() || !sensor.contains("label")) continue;
        if (sensor["label"] == kBoardPower) {
            power += "Board: " + sensor["input"].dump() + "\n";
        } else {
            temperatures += sensor["label"].get<std::string>() + ": " + sensor["input"].dump() + "(" +
                            sensor["max"].dump() + ")\n";
        }
    }
    return temperatures + power;
}

/// How many characters the indentation adds to a text, at the elements and at the closing brackets: of many
/// levels it can be a hundred times the rest.
std::size_t indentation(const Json& json, std::size_t levels = 0) {
    if (!json.is_structured() || json.empty()) return 0;
    std::size_t characters = kIndentation * levels;
    for (const Json& each : json)
        characters += kIndentation * (levels + 1) + indentation(each, levels + 1);
    return characters;
}

int32_t status_of(bool handled) {
    return handled ? 0 : -1;
}

}  // namespace

// ---- Requests -----------------------------------------------------------------------------------------

/// Runs `request` on the present connection, which lives at least as long as that takes.
template <typename Request>
HttpResult hpsClient::send(Request request) const {
    std::shared_ptr<HttpClient> http;
    {
        const std::lock_guard lock(mutex_);
        http = http_;
    }
    if (!http) return {false, 0, {}, "retry over"};
    return request(*http);
}

HttpResult hpsClient::request(const hps::Endpoint& endpoint, const Json& body,
                              const std::string& suffix) const {
    return send([&](HttpClient& http) -> HttpResult {
        const std::string path = endpoint.path + suffix;
        switch (endpoint.method) {
            case Method::Get:
                return http.get(path);
            case Method::Post:
                return http.post(path, body);
            case Method::Patch:
                return http.patch(path, body);
            case Method::Delete:
                return http.del(path, body);
        }
        return {};
    });
}

bool hpsClient::fetch(const hps::Endpoint& endpoint, Json& payload) const {
    return HpsHttpHelper::handle_json(request(endpoint, nullptr), payload);
}

int32_t hpsClient::command(const hps::Endpoint& endpoint, const Json& body, const std::string& suffix) const {
    return status_of(HpsHttpHelper::handle(request(endpoint, body, suffix)));
}

int32_t hpsClient::fetch_text(const hps::Endpoint& endpoint, std::string& text) const {
    Json payload;
    if (!fetch(endpoint, payload)) return -1;
    if (indentation(payload) > kiv::json::kMostBytes) {
        kiv::log_error(kiv::kHpsSource, "JSON parse error: {}", "more than 64 MiB of indentation");
        return -1;
    }
    text = payload.dump(kIndentation);
    return 0;
}

HttpResult hpsClient::http_get(const std::string& path) {
    return request({Method::Get, ""}, nullptr, path);
}

HttpResult hpsClient::http_get(const std::string& path, const std::string& file_path) {
    return send([&](HttpClient& http) { return http.download(path, file_path); });
}

HttpResult hpsClient::http_post(const std::string& path) {
    return request({Method::Post, ""}, nullptr, path);
}

HttpResult hpsClient::http_post(const std::string& path, const std::string& body_text) {
    return request({Method::Post, ""}, kiv::json::parse(body_text), path);
}

HttpResult hpsClient::http_post_file(const std::string& path, const std::string& file_path) {
    return http_post_file(path, file_path, nullptr);
}

HttpResult hpsClient::http_post_file(const std::string& path, const std::string& file_path,
                                     const UploadProgress& progress) {
    return send([&](HttpClient& http) { return http.upload(path, file_path, progress); });
}

HttpResult hpsClient::http_patch(const std::string& path) {
    return request({Method::Patch, ""}, nullptr, path);
}

HttpResult hpsClient::http_patch(const std::string& path, const std::string& body_text) {
    return request({Method::Patch, ""}, kiv::json::parse(body_text), path);
}

HttpResult hpsClient::http_delete(const std::string& path) {
    return request({Method::Delete, ""}, nullptr, path);
}

HttpResult hpsClient::http_delete(const std::string& path, const std::string& body_text) {
    return request({Method::Delete, ""}, kiv::json::parse(body_text), path);
}

// ---- Interfaces ---------------------------------------------------------------------------------------

int32_t hpsClient::get_interface_info() {
    std::vector<inteface_info> fresh;
    const auto keep = [&] {
        const std::lock_guard lock(mutex_);
        interfaces_.insert(interfaces_.end(), fresh.begin(), fresh.end());
    };
    try {
        if (get_interface_info(fresh) != 0) return -1;
    } catch (...) {
        keep();  // The entries before the broken one.
        throw;
    }
    keep();
    return 0;
}

int32_t hpsClient::get_interface_info(std::vector<inteface_info>& list) {
    Json payload;
    if (!fetch(hps::kNetworks, payload) || !payload.is_object() || !payload.contains("interfaces")) return -1;
    // The list is not emptied before: docs/oddities.md.
    for (Json& entry : payload["interfaces"]) {
        list.push_back({entry["if_name"].get<std::string>(), entry["ip_addr"].get<std::string>(),
                        entry["netmask"].get<std::string>(), entry["hw_addr"].get<std::string>()});
    }
    return 0;
}

std::vector<inteface_info> hpsClient::interfaces() const {
    const std::lock_guard lock(mutex_);
    return interfaces_;
}

bool hpsClient::exist_ip_address(const std::string& ip) {
    Json payload;
    if (!fetch(hps::kNetworks, payload) || !payload.is_object() || !payload.contains("interfaces"))
        return false;
    for (const Json& entry : payload["interfaces"]) {
        if (entry.is_object() && entry.contains("ip_addr") && entry["ip_addr"] == ip) return true;
    }
    return false;
}

int32_t hpsClient::reconfig_network(const std::string& cmd) {
    return command(hps::kReconfig, Json{{"reconfig_cmd", cmd}});
}

// ---- Multicast, monitoring, capture, log --------------------------------------------------------------

Json hpsClient::igmp_body(const hps_igmp& igmp) const {
    Json setting = Json::object();
    setting["pid"] = process_id_;
    setting["dst_ip_addr"] = igmp.dst_ip_addr;
    setting["if_name"] = igmp.if_name;
    setting["ssm_source_addr"] = igmp.ssm_source_addr;
    Json body = Json::object();
    body["settings"] = Json::array({std::move(setting)});
    return body;
}

int32_t hpsClient::igmp_join(const hps_igmp& igmp) {
    return command(hps::kIgmpJoin, igmp_body(igmp));
}

int32_t hpsClient::igmp_leave(const hps_igmp& igmp) {
    return command(hps::kIgmpLeave, igmp_body(igmp));
}

std::string hpsClient::get_igmp_list() {
    Json payload;
    if (!fetch(hps::kIgmpList, payload)) return "Fail get IGMP List";
    std::string lines;
    if (!payload.is_object() || !payload.contains("list") || !payload["list"].is_array()) return lines;
    for (const Json& entry : payload["list"]) {
        lines += '[';
        lines += std::to_string(kiv::json::number<int32_t>(entry.at("pid"))) + "]: ";
        lines += entry.at("dst_ip_addr").get<std::string>() + "\n";
    }
    return lines;
}

int32_t hpsClient::get_hwmon_info(std::string& out, bool raw) {
    if (raw) return fetch_text(hps::kHwmon, out);
    Json payload;
    if (!fetch(hps::kHwmon, payload)) return -1;
    if (payload.is_array()) out = hwmon_report(payload);
    return 0;
}

int32_t hpsClient::start_tcpdump(const std::string& if_name, uint32_t seconds) {
    return command(hps::kTcpdump, Json{{"if_name", if_name}, {"second", seconds}});
}

int32_t hpsClient::get_log_tmp(const std::string& file_path) {
    return status_of(HpsHttpHelper::handle(http_get(hps::kLogPath, file_path)));
}

// ---- PTP ----------------------------------------------------------------------------------------------

int32_t hpsClient::get_ptp_master(std::string& text) {
    return fetch_text(hps::kPtpMaster, text);
}

int32_t hpsClient::get_ptp_management(std::string& text) {
    return fetch_text(hps::kPtpManagement, text);
}

int32_t hpsClient::get_ptp_master(PtpMaster& master) {
    Json payload;
    if (!fetch(hps::kPtpMaster, payload)) return -1;
    master = payload.get<PtpMaster>();
    return 0;
}

int32_t hpsClient::get_ptp_management(PtpManagement& management) {
    Json payload;
    if (!fetch(hps::kPtpManagement, payload)) return -1;
    management = payload.get<PtpManagement>();
    return 0;
}

int32_t hpsClient::get_hps_ptp_sm_backgroud(hps_ptp_sm& out) {
    std::shared_ptr<ThreadManagerClientPolling> polling;
    {
        const std::lock_guard lock(mutex_);
        polling = polling_;
    }
    return polling ? polling->get_hps_ptp_sm(out) : -1;
}

// ---- Registration of a process ------------------------------------------------------------------------

int32_t hpsClient::registry_alive(int32_t id) {
    return command(hps::kRegister, nullptr, std::to_string(id));
}

int32_t hpsClient::keep_alive(int32_t id) {
    return command(hps::kKeepAlive, nullptr, std::to_string(id));
}

// ---- Firmware -----------------------------------------------------------------------------------------

int32_t hpsClient::fw_upload(const std::string& file_path) {
    return fw_upload(file_path, nullptr);
}

int32_t hpsClient::fw_upload(const std::string& file_path, const UploadProgress& progress) {
    return status_of(HpsHttpHelper::handle(http_post_file(hps::kFwUploadPath, file_path, progress)));
}

int32_t hpsClient::fw_start(bool start, const std::string& md5) {
    // Cards expect this spelling: docs/oddities.md.
    return command(hps::kFwStart, Json{{"start", start}, {"md5hush", md5}});
}

std::string hpsClient::get_fw_status() {
    Json payload;
    return fetch(hps::kFwStatus, payload) ? payload.get<std::string>() : "";
}

int32_t hpsClient::get_firmware_info(std::string& user1, std::string& user2) {
    Json payload;
    if (!fetch(hps::kFwInfo, payload)) return -1;
    if (!payload.is_object()) return 0;
    if (payload.contains("User1")) user1 = payload["User1"].get<std::string>();
    if (payload.contains("User2")) user2 = payload["User2"].get<std::string>();
    return 0;
}

int32_t hpsClient::fw_switch(uint8_t image) {
    return command(hps::kFwSwitch, Json{{"image", image}});
}

std::string hpsClient::convert2string(uint32_t address) {
    return uint32ToIp(address);
}
