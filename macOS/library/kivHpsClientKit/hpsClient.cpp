#include "hpsClient.h"

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "HpsHttpHelper.h"
#include "hpsLog.h"

using Json = nlohmann::ordered_json;

hpsClient::hpsClient() : process_id_(getpid()) {}

hpsClient::~hpsClient() = default;

void hpsClient::get_version(uint16_t& major, uint16_t& minor, uint16_t& patch) const {
    major = 3;
    minor = 0;
    patch = 0;
}

std::string hpsClient::get_url() const {
    const std::lock_guard lock(mutex_);
    return base_url_;
}

std::string hpsClient::get_address() const {
    const std::lock_guard lock(mutex_);
    return ip_address_;
}

int32_t hpsClient::open_config(const std::string& ip, const std::string& port_text, bool start_threads) {
    if (ip.empty()) return -1;
    {
        const std::lock_guard lock(mutex_);
        ip_address_ = ip;
        port_ = std::stoi(port_text);
    }
    return _open_config(start_threads);
}

int32_t hpsClient::_open_config(bool) {
    std::string url;
    {
        const std::lock_guard lock(mutex_);
        base_url_ = "http://" + ip_address_ + ":" + std::to_string(port_) + "/api/v1.0";
        http_ = std::make_shared<HttpClient>(base_url_);
        url = base_url_;
    }
    if (get_interface_info() != 0) {
        hps_log_error(__LINE__, "Fail HTTP request url={}", url);
        return -1;
    }
    const kiv_log_config_t log_config{KIV_LOG_LEVEL_INFO};
    kivLog_open(&log_config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
    return 0;
}

int32_t hpsClient::get_interface_info() {
    std::vector<inteface_info> fresh;
    if (get_interface_info(fresh) != 0) return -1;
    const std::lock_guard lock(mutex_);
    interfaces_.insert(interfaces_.end(), fresh.begin(), fresh.end());
    return 0;
}

int32_t hpsClient::get_interface_info(std::vector<inteface_info>& list) {
    Json payload;
    if (!HpsHttpHelper::handle_json(http_get("/hps/info/networks"), payload)) return -1;
    if (!payload.is_object() || !payload.contains("interfaces")) return -1;
    for (Json& entry : payload["interfaces"]) {
        list.push_back({entry["if_name"].get<std::string>(), entry["ip_addr"].get<std::string>(),
                        entry["netmask"].get<std::string>(), entry["hw_addr"].get<std::string>()});
    }
    return 0;
}

namespace {

constexpr const char* kBoardPower = "Board Power";

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

}  // namespace

int32_t hpsClient::get_hwmon_info(std::string& out, bool raw) {
    Json payload;
    if (!HpsHttpHelper::handle_json(http_get("/hps/hwmon/info"), payload)) return -1;
    if (raw) {
        out = payload.dump(4);
    } else if (payload.is_array()) {
        out = hwmon_report(payload);
    }
    return 0;
}

std::vector<inteface_info> hpsClient::interfaces() const {
    const std::lock_guard lock(mutex_);
    return interfaces_;
}

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

HttpResult hpsClient::http_get(const std::string& path) {
    return send([&](HttpClient& http) { return http.get(path); });
}

HttpResult hpsClient::http_get(const std::string& path, const std::string& file_path) {
    return send([&](HttpClient& http) { return http.download(path, file_path); });
}

HttpResult hpsClient::http_post(const std::string& path) {
    return http_post(path, "null");
}

HttpResult hpsClient::http_post(const std::string& path, const std::string& body_text) {
    const Json body = Json::parse(body_text);
    return send([&](HttpClient& http) { return http.post(path, body); });
}

HttpResult hpsClient::http_post_file(const std::string& path, const std::string& file_path) {
    return send([&](HttpClient& http) { return http.upload(path, file_path); });
}

HttpResult hpsClient::http_patch(const std::string& path) {
    return http_patch(path, "null");
}

HttpResult hpsClient::http_patch(const std::string& path, const std::string& body_text) {
    const Json body = Json::parse(body_text);
    return send([&](HttpClient& http) { return http.patch(path, body); });
}

HttpResult hpsClient::http_delete(const std::string& path) {
    return http_delete(path, "null");
}

HttpResult hpsClient::http_delete(const std::string& path, const std::string& body_text) {
    const Json body = Json::parse(body_text);
    return send([&](HttpClient& http) { return http.del(path, body); });
}
