#include "cards.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "configuration.h"
#include "driver_process.h"
#include "guard.h"
#include "numbers.h"
#include "output.h"

namespace kivctl {

namespace {

std::optional<Failure> g_configuration_problem;
uint32_t g_scan_limit_ms = 0;  ///< 0: none.

constexpr const char* kLook = "\"kivctl doctor\" looks at each step; -v shows the log";

Failure no_driver(const DriverProcess& driver) {
    return {Layer::Driver, "NO_DRIVER", fmt::format("no driver at {}: {}", driver.where, driver.problem),
            driver.remedy};
}

Failure no_card(const DriverProcess& driver) {
    return {Layer::Driver, "NO_CARD", fmt::format("no card: the driver at {} has none", driver.where),
            driver.remedy};
}

/// The time limit can only come while the driver lists its cards: opening them has a limit of its own.
void look_for_cards() {
    const DriverProcess driver = look_for_driver();
    if (!driver.found) throw no_driver(driver);
    waiting_for(Layer::Driver, "the driver, which hangs while it lists its cards");
}

std::vector<Found> scan_each(const uint8_t* only) {
    look_for_cards();
    kiv_scan_each_t scan{};
    if (const kiv_result_t result = kiv_scan_each(only, g_scan_limit_ms, &scan); result != KIV_OK) {
        Failure failure(Layer::Driver, kiv_result_name(result),
                        fmt::format("the scan failed: {} (0x{:08X})", kiv_result_text(result), result));
        failure.code = result;
        throw Failure(failure);
    }
    return {scan.cards, scan.cards + scan.count};
}

std::string list_of(const std::vector<Found>& cards) {
    std::string list;
    for (const Found& card : cards)
        list += (list.empty() ? "" : ", ") + std::to_string(card.device.device_id);
    return list;
}

/// The only card, when none was said.
Found only_card() {
    const std::vector<Found> cards = scan_each(nullptr);
    if (cards.empty()) throw no_card(look_for_driver());
    if (cards.size() > 1)
        throw usage("there are several cards: " + list_of(cards), "say which one, behind the command");
    return cards.front();
}

/// What a server that is to blame for the result has. A driver may fail beside a server that does not answer.
const char* name_of_fault(kiv_result_t result) {
    return result == KIV_ERR_BUSY ? "SERVER_TIMEOUT" : "SERVER_ANSWER";
}

}  // namespace

void open_library(int seconds) {
    g_scan_limit_ms = static_cast<uint32_t>(seconds) * 2000 / 3;
    const kiv_log_config_t log{KIV_LOG_LEVEL_INFO};
    g_configuration_problem = unreadable(configuration_path());
    if (g_configuration_problem) {
        kivLog_open(&log, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
        return;
    }
    try {
        kiv_open(&log);
    } catch (const std::runtime_error& error) {
        g_configuration_problem =
            Failure(Layer::Configuration, "CONFIGURATION", error.what(),
                    "\"kivctl config check\" says what is wrong, \"kivctl config init\" makes a first one");
    }
}

const std::optional<Failure>& configuration_problem() {
    return g_configuration_problem;
}

void need_configuration() {
    if (g_configuration_problem) throw Failure(*g_configuration_problem);
}

std::vector<Found> scan_cards() {
    std::vector<Found> cards = scan_each(nullptr);
    if (cards.empty()) Output::note(no_card(look_for_driver()).text());
    return cards;
}

std::map<uint8_t, kivDriverClientList> list_cards() {
    look_for_cards();
    std::map<uint8_t, kivDriverClientList> cards;
    for (auto& function : kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME))
        cards[function->device_conf.device_index].push_back(std::move(function));
    return cards;
}

Failure problem_of(const Found& card) {
    const uint8_t id = card.device.device_id;
    Failure failure = failure_of(card.result, "opening", id);
    if (card.tunnel.tunnel_address == 0 && card.tunnel.tunnel_value == 0) {
        failure.layer = Layer::Driver;
        failure.message = fmt::format("card {}: the driver gives no address of its management server", id);
        failure.remedy = kLook;
        return failure;
    }
    waiting_for(Layer::Server, "an answer of a card's management server");
    const std::optional<Failure> server = server_of(card).problem();
    if (server && (card.result == KIV_ERR_REST || server->name == name_of_fault(card.result))) {
        failure.layer = server->layer;
        failure.message = fmt::format("card {}: its management server: {}", id, server->message);
        failure.remedy = server->remedy;
    } else if (card.result == KIV_ERR_BUSY) {
        failure =
            Failure(Layer::Driver, "TIMEOUT",
                    fmt::format("card {}: the driver lists it, but gave no answer about it within {:.1f} s",
                                id, g_scan_limit_ms / 1000.0),
                    kLook)
                .of_card(id)
                .ends_with(kTimeIsUp);
    } else if (card.result != KIV_ERR_REST) {
        failure.layer = Layer::Driver;
        failure.message =
            fmt::format("card {}: the driver lists it, but cannot open it or read its registers (0x{:08X})",
                        id, card.result);
        failure.remedy = kLook;
    }
    return failure;
}

void throw_no_such_card(uint8_t id) {
    Failure failure = failure_of(KIV_ERR_NO_DEVICE, "the search for it", id);
    failure.message = fmt::format("there is no card {}", id);
    throw Failure(failure);
}

Found open_card(std::optional<uint8_t> id, Asks asks) {
    Found card{};
    if (id) {
        const std::vector<Found> cards = scan_each(&*id);
        if (cards.empty()) throw_no_such_card(*id);
        card = cards.front();
    } else {
        card = only_card();
    }
    const bool usable = card.result == KIV_OK || (card.result == KIV_ERR_REST && asks == Asks::Driver);
    if (!usable) throw problem_of(card);
    asks == Asks::Driver ? waiting_for(Layer::Driver, "an answer of the driver about the card")
                         : waiting_for(Layer::Server, "an answer of the card");
    return card;
}

std::array<PortAddress, 2> port_addresses(uint8_t id) {
    kiv_net_config_t net{};
    net.port_0.prefix_length_0 = kNotListed;
    net.port_1.prefix_length_1 = kNotListed;
    check(kiv_get_media_net_config(id, &net), "asking for the media network configuration", id);
    return {{{net.port_0.ip_address_0, net.port_0.prefix_length_0},
             {net.port_1.ip_address_1, net.port_1.prefix_length_1}}};
}

Json port_json(unsigned number, const PortAddress& port) {
    if (port.prefix == kNotListed)
        return {{"port", number}, {"ip_address", nullptr}, {"prefix_length", nullptr}};
    return {{"port", number}, {"ip_address", dotted(port.address)}, {"prefix_length", port.prefix}};
}

/// Any byte may be a setting, so two answers over different bytes tell what was written.
PtpSettings ptp_settings(uint8_t id) {
    kiv_ptp_config_t over_zeros{};
    kiv_ptp_config_t over_ones{};
    std::memset(over_ones.port_params, 0xFF, sizeof over_ones.port_params);
    for (kiv_ptp_config_t* const config : {&over_zeros, &over_ones})
        check(kiv_get_ptp_config(id, config), "asking for the PTP configuration", id);
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
