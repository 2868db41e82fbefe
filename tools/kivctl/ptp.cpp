// PTP settings and state.
#include <arpa/inet.h>

#include <charconv>
#include <iterator>
#include <nlohmann/json.hpp>

#include "cards.h"
#include "commands.h"

namespace kivctl {

namespace {

struct NumberOption {
    const char* name;
    const char* help;
    int least;
    int most;
};

// clang-format off
constexpr NumberOption kNumbers[] = {  // As PtpChange::numbers.
    {"--announce-receipt-timeout", "Announce receipt timeout, in announce intervals", 0, 255},
    {"--domain",                   "Domain number",                                   0, 255},
    {"--log-announce-interval",    "Announce interval, log2 of seconds",           -128, 127},
    {"--log-delay-req-interval",   "Delay request interval, log2 of seconds",      -128, 127},
    {"--tos0",                     "Type of service of port 0",                       0, 255},
    {"--tos1",                     "Type of service of port 1",                       0, 255},
    {"--ttl0",                     "Time to live of port 0",                          0, 255},
    {"--ttl1",                     "Time to live of port 1",                          0, 255},
};
constexpr std::size_t kGlobals = 4;  ///< The rest are the ports'.

const std::vector<Name> kSettingLines = {{"announce_receipt_timeout", "Announce receipt timeout"},
                                         {"domain",                   "Domain"},
                                         {"log_announce_interval",    "Log announce interval"},
                                         {"log_delay_req_interval",   "Log delay request interval"},
                                         {"unicast_delay_req",        "Unicast delay requests"},
                                         {"tos",                      "TOS of port 0, port 1"},
                                         {"ttl",                      "TTL of port 0, port 1"}};
const std::vector<Name> kStateLines = {{"state",            "State"},
                                       {"tai_time",         "TAI time"},
                                       {"utc_offset",       "UTC offset, s"},
                                       {"utc_offset_valid", "UTC offset valid"},
                                       {"grandmaster",      "Grandmaster"},
                                       {"selected_source",  "Selected as PTP source"}};
// clang-format on

bool parse_number(std::string_view text, uint32_t most, uint32_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && value <= most;
}

bool parse_address(const std::string& text, PortAddress& port) {
    const std::size_t slash = text.find('/');
    in_addr parsed{};
    if (slash == std::string::npos || inet_pton(AF_INET, text.substr(0, slash).c_str(), &parsed) != 1)
        return false;
    port.address = ntohl(parsed.s_addr);
    return parse_number(std::string_view(text).substr(slash + 1), 32, port.prefix);
}

/// VLAN id, 0 for "off".
bool parse_vlan(const std::string& text, uint32_t& id) {
    id = 0;
    return text == "off" || (parse_number(text, 4094, id) && id != 0);
}

/// Puts what is to change into what the card has.
void change_ptp(const PtpChange& change, PtpSettings& settings) {
    bool all_ports = true;
    for (std::size_t i = 0; i < change.numbers.size(); ++i) {
        const std::optional<int>& number = change.numbers[i];
        if (!number) {
            all_ports = all_ports && i < kGlobals;
        } else if (i < kGlobals) {
            settings.config.global_params[i] = static_cast<int8_t>(*number);
        } else {
            settings.config.port_params[i - kGlobals] = static_cast<uint8_t>(*number);
        }
    }
    settings.ports_known = settings.ports_known || all_ports;
    if (!settings.ports_known)
        throw Failure("the card configuration has no entry for this card: give --tos0 --tos1 --ttl0 --ttl1");
    if (change.unicast_delay_req) settings.config.enabled = *change.unicast_delay_req == "on";
}

template <typename Port>
void change_vlan(const std::optional<std::string>& text, Port& port) {
    uint32_t id = 0;
    if (text) parse_vlan(*text, id);
    port.vlan_enable = id != 0;
    port.vlan_id = static_cast<uint16_t>(id);
}

kiv_net_config_t changed_net(const PtpChange& change, std::array<PortAddress, 2>& ports) {
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (change.address[i]) parse_address(*change.address[i], ports[i]);
        if (ports[i].prefix == kNotListed) {
            const std::string number = std::to_string(i);
            throw Failure("the card does not tell the address of port " + number + ": give --ip" + number);
        }
    }
    kiv_net_config_t net{};
    net.port_0.ip_address_0 = ports[0].address;
    net.port_0.prefix_length_0 = ports[0].prefix;
    net.port_1.ip_address_1 = ports[1].address;
    net.port_1.prefix_length_1 = ports[1].prefix;
    change_vlan(change.vlan[0], net.port_0);
    change_vlan(change.vlan[1], net.port_1);
    return net;
}

Json vlan_json(uint8_t enabled, uint16_t id) {
    return enabled != 0 ? Json(id) : Json("off");
}

/// Whether the card is the selected PTP source; null when the library does not tell.
Json selected_source(uint8_t id) {
    uint8_t source = 0;
    return kiv_get_id_selected_ptp_card(&source) == KIV_OK ? Json(source == id) : Json();
}

}  // namespace

void ptp(const Request& request, Output& output) {
    scan_cards();
    constexpr uint32_t kUntouched = UINT32_MAX;
    kiv_ptp_status_t status{};
    status.state = kUntouched;
    check(kiv_get_ptp_status(request.id, &status), "PTP status");

    Json json{{"id", request.id},
              {"config", to_json(ptp_settings(request.id))},
              {"status",
               {{"state", status.state == kUntouched ? Json() : Json(status.state)},
                {"tai_time", status.tai_time},
                {"utc_offset", static_cast<int32_t>(status.master_value)},
                {"utc_offset_valid", status.is_master != 0},
                {"grandmaster", hex64(status.clock_identity)},
                {"selected_source", selected_source(request.id)}}}};
    if (request.json) return output.print_json(json);
    Json& selected = json["status"]["selected_source"];
    if (selected.is_null()) selected = "not known";
    output.print_record(kSettingLines, json["config"]);
    output.print("\n");
    output.print_record(kStateLines, json["status"]);
}

Options ptp_set_options(Request& request) {
    PtpChange& change = request.ptp;
    std::vector<Option> options;
    for (std::size_t i = 0; i < std::size(kNumbers); ++i) {
        const auto& [name, help, least, most] = kNumbers[i];
        options.push_back({name,
                           help,
                           &change.numbers[i],
                           std::to_string(least) + ".." + std::to_string(most),
                           nullptr,
                           {{least, most}}});
    }
    const auto on_off = [](const std::string& text) {
        return text == "on" || text == "off" ? std::string() : text + " not in {on,off}";
    };
    const auto address = [](const std::string& text) {
        PortAddress ignored{};
        return parse_address(text, ignored) ? std::string() : text + " is no address like 192.168.10.11/24";
    };
    const auto vlan = [](const std::string& text) {
        uint32_t ignored = 0;
        return parse_vlan(text, ignored) ? std::string() : text + " is no VLAN: 1 to 4094, or off";
    };
    options.push_back(
        {"--unicast-delay-req", "Send delay requests unicast", &change.unicast_delay_req, "on|off", on_off});
    for (const unsigned i : {0u, 1u}) {
        const std::string number = std::to_string(i);
        options.push_back({"--ip" + number, "Address and prefix length of port " + number, &change.address[i],
                           "A.B.C.D/N", address});
        options.push_back({"--vlan" + number, "VLAN of port " + number + " (off when not given)",
                           &change.vlan[i], "N|off", vlan});
    }
    options.push_back({"--save", "Keep the settings in the card configuration too", &change.save});
    return {options,
            "What is not given keeps its value: addresses as the card has them, PTP as in the card "
            "configuration.\n"
            "A card does not tell its VLANs: a port for which none is given gets none."};
}

void ptp_set(const Request& request, Output& output) {
    scan_cards();
    std::array<PortAddress, 2> ports = port_addresses(request.id);
    const kiv_net_config_t net = changed_net(request.ptp, ports);
    PtpSettings settings = ptp_settings(request.id);
    change_ptp(request.ptp, settings);
    check(kiv_set_ptp_config(request.id, &net, &settings.config), "PTP configuration");
    if (request.ptp.save) check(kiv_configure_save(), "save");

    Json json{{"id", request.id}, {"config", to_json(settings)}, {"ports", Json::array()}};
    for (unsigned i = 0; i < 2; ++i) {
        json["ports"].push_back({{"port", i}});
        json["ports"].back().update(to_json(ports[i]));
    }
    json["ports"][0]["vlan"] = vlan_json(net.port_0.vlan_enable, net.port_0.vlan_id);
    json["ports"][1]["vlan"] = vlan_json(net.port_1.vlan_enable, net.port_1.vlan_id);
    json["saved"] = request.ptp.save;
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_record(kSettingLines, json["config"]);
        output.print("\n");
        output.print_table(
            {{"port", "PORT"}, {"ip_address", "ADDRESS"}, {"prefix_length", "PREFIX"}, {"vlan", "VLAN"}},
            json["ports"]);
    }
    Output::note(request.ptp.save
                     ? "the change is in the card, and saved in the card configuration"
                     : "the change is in the card, not in the card configuration: the next \"ptp "
                       "set\" starts from the PTP settings there; add --save to keep the change");
}

}  // namespace kivctl
