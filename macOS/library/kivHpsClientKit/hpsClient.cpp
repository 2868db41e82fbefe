// The connection: where the server is, and the background threads.
#include <kiv/hpsClient.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

#include "base/jsonFields.h"
#include "base/jsonText.h"
#include "kivHpsClientKit/ThreadManagerClientAlive.h"
#include "kivHpsClientKit/ThreadManagerClientPolling.h"
#include "log/kivLogDispatch.h"

using kiv::kHpsSource;
using kiv::log_error;

namespace {

using Json = nlohmann::ordered_json;

constexpr uint16_t kPollingPeriod = 60;  // Seconds.
constexpr std::chrono::seconds kFirstRequestLimit{2};

/// The member at `outer`.`inner`, or JSON null.
const Json& member(const Json& json, const char* outer, const char* inner) {
    static const Json none;
    if (!json.is_object() || !json.contains(outer)) return none;
    const Json& below = json[outer];
    return below.is_object() && below.contains(inner) ? below[inner] : none;
}

bool lists_interface(const Json& device, const std::string& ifname) {
    const Json& names = member(device, "hps_access", "ifnames");
    if (!names.is_array()) return false;
    for (const Json& name : names) {
        if (name == ifname) return true;
    }
    return false;
}

bool has_port_address(const Json& device, const std::string& ipaddr) {
    return member(device, "maceth0", "ip_addr") == ipaddr || member(device, "maceth1", "ip_addr") == ipaddr;
}

}  // namespace

hpsClient::hpsClient() : process_id_(getpid()) {}

hpsClient::~hpsClient() {
    if (process_id_ != getpid()) {
        // A forked child: the threads are the parent's, and the managers' locks may be held here for ever.
        static_cast<void>(alive_.release());
        static_cast<void>(new std::shared_ptr(std::move(polling_)));
        return;
    }
    if (alive_) alive_->join_thread();
    if (polling_) polling_->join_thread();
}

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

int32_t hpsClient::open_config_ifname(const std::string& config_path, bool start_threads,
                                      const std::string& ifname) {
    return open_matching(
        config_path, start_threads, [&](const Json& device) { return lists_interface(device, ifname); },
        "Invalid ifname={}", ifname);
}

int32_t hpsClient::open_config_ipaddr(const std::string& config_path, bool start_threads,
                                      const std::string& ipaddr) {
    return open_matching(
        config_path, start_threads, [&](const Json& device) { return has_port_address(device, ipaddr); },
        "Invalid ipaddr={}", ipaddr);
}

/// Configures the client with the server of the file's first device that `matches`.
template <typename Matches>
int32_t hpsClient::open_matching(const std::string& config_path, bool start_threads, Matches matches,
                                 const char* complaint, const std::string& wanted) {
    std::error_code ignored;
    // Some standard libraries open a directory as a file.
    if (config_path.empty() || std::filesystem::is_directory(config_path, ignored)) return -1;
    std::ifstream file(config_path);
    if (!file.is_open()) return -1;
    const Json root = kiv::json::parse(file);
    const Json devices = root.is_object() && root.contains("devices") ? root["devices"] : Json::array();
    for (const Json& device : devices) {
        if (!matches(device)) continue;
        const Json& access = device.at("hps_access");
        const auto ip = access.at("ip_addr").get<std::string>();
        const auto port = kiv::json::number<uint16_t>(access.at("port"));
        {
            const std::lock_guard lock(mutex_);
            ip_address_ = ip;
            port_ = port;
        }
        return _open_config(start_threads);
    }
    log_error(kHpsSource, complaint, wanted);
    // Also when the file is good JSON without the card: docs/oddities.md.
    log_error(kHpsSource, "Invalid JSON format={}", config_path);
    return -1;
}

int32_t hpsClient::_open_config(bool start_threads) {
    std::string url;
    {
        const std::lock_guard lock(mutex_);
        base_url_ = "http://" + ip_address_ + ":" + std::to_string(port_) + "/api/v1.0";
        http_ = std::make_shared<HttpClient>(base_url_);
        url = base_url_;
    }
    if (get_interface_info() != 0) {
        log_error(kHpsSource, "Fail HTTP request url={}", url);
        return -1;
    }
    // Undoes the application's own log settings, and stays: docs/oddities.md.
    const kiv_log_config_t log_config{KIV_LOG_LEVEL_INFO};
    kivLog_open(&log_config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
    if (start_threads) {
        setting_thread();
        std::this_thread::sleep_for(std::chrono::nanoseconds(1000));  // Not milliseconds: docs/oddities.md.
    }
    return 0;
}

void hpsClient::setting_thread() {
    auto alive = std::make_unique<ThreadManagerClientAlive>(
        process_id_, [this](int32_t id) { registry_alive(id); }, [this](int32_t id) { keep_alive(id); });
    auto polling = std::make_shared<ThreadManagerClientPolling>(
        kPollingPeriod, [this](std::string& text) { return get_ptp_master(text); },
        [this](std::string& text) { return get_ptp_management(text); });
    {
        const std::lock_guard lock(mutex_);
        alive_ = std::move(alive);
        polling_ = polling;
        alive_->start_thread();
        polling->start_thread();
    }
    if (!polling->wait_first_request(kFirstRequestLimit)) {
        log_error(kHpsSource, "Fail setting_thread not done first request");
    }
}
