#include "cards.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "no_card.h"

namespace kivctl {

std::vector<Found> scan_cards() {
    kiv_scan_internal_t scan{};
    check(kiv_scan_internal(&scan), "scan");
    if (scan.count == 0) Output::note(why_no_card());
    std::vector<Found> found;
    for (unsigned i = 0; i < scan.count; ++i)
        found.push_back({scan.devices[i], scan.internal[i]});
    std::sort(found.begin(), found.end(),
              [](const Found& a, const Found& b) { return a.card.device_id < b.card.device_id; });
    return found;
}

std::array<PortAddress, 2> port_addresses(uint8_t id) {
    kiv_net_config_t net{};
    net.port_0.prefix_length_0 = kNotListed;
    net.port_1.prefix_length_1 = kNotListed;
    check(kiv_get_media_net_config(id, &net), "media network configuration");
    return {{{net.port_0.ip_address_0, net.port_0.prefix_length_0},
             {net.port_1.ip_address_1, net.port_1.prefix_length_1}}};
}

Json to_json(const PortAddress& port) {
    if (port.prefix == kNotListed) return {{"ip_address", nullptr}, {"prefix_length", nullptr}};
    return {{"ip_address", dotted(port.address)}, {"prefix_length", port.prefix}};
}

/// Any byte may be a setting, so two answers over different bytes tell what was written.
PtpSettings ptp_settings(uint8_t id) {
    kiv_ptp_config_t over_zeros{};
    kiv_ptp_config_t over_ones{};
    std::memset(over_ones.port_params, 0xFF, sizeof over_ones.port_params);
    for (kiv_ptp_config_t* const config : {&over_zeros, &over_ones})
        check(kiv_get_ptp_config(id, config), "PTP configuration");
    return {over_zeros, std::equal(std::begin(over_zeros.port_params), std::end(over_zeros.port_params),
                                   std::begin(over_ones.port_params))};
}

/// Receipt timeout and domain are unsigned on the wire.
Json to_json(const PtpSettings& settings) {
    const kiv_ptp_config_t& config = settings.config;
    Json json{{"announce_receipt_timeout", static_cast<uint8_t>(config.global_params[0])},
              {"domain", static_cast<uint8_t>(config.global_params[1])},
              {"log_announce_interval", config.global_params[2]},
              {"log_delay_req_interval", config.global_params[3]},
              {"unicast_delay_req", config.enabled != 0}};
    const char* const keys[] = {"tos", "ttl"};
    for (std::size_t i = 0; i < 2; ++i) {
        json[keys[i]] = {nullptr, nullptr};
        if (settings.ports_known) json[keys[i]] = {config.port_params[2 * i], config.port_params[2 * i + 1]};
    }
    return json;
}

}  // namespace kivctl
