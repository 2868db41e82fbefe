// The change of network and PTP settings.
#include <fmt/format.h>
#include <kiv/kiv_api.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "cards.h"
#include "commands.h"
#include "configuration.h"
#include "guard.h"

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
constexpr std::chrono::seconds kApplied{5};  ///< How long a card may take to list what it was sent.
// clang-format on

/// What goes to the card.
struct Change {
    std::array<PortAddress, 2> ports;
    std::array<int64_t, 2> vlans;
    PtpSettings ptp;
};

/// Puts what is to change into what the configuration has.
void change_ptp(const PtpChange& change, PtpSettings& settings) {
    bool all_ports = true;
    for (std::size_t i = 0; i < change.numbers.size(); ++i) {
        const std::optional<int64_t>& number = change.numbers[i];
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
        throw Failure(Layer::Configuration, "NOT_IN_CONFIGURATION",
                      "nothing was sent: the card configuration has no entry for this card",
                      "give --tos0 --tos1 --ttl0 --ttl1");
    if (change.unicast_delay_req) settings.config.enabled = *change.unicast_delay_req ? 1 : 0;
}

/// Throws for an address that no port can have: also for one that the card has now and that nobody changes.
void change_addresses(const PtpChange& change, std::array<PortAddress, 2>& ports) {
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (change.address[i]) ports[i] = {change.address[i]->address, change.address[i]->prefix};
        if (ports[i].prefix == kNotListed)
            throw Failure(Layer::Card, "ADDRESS_UNKNOWN",
                          fmt::format("nothing was sent: the card does not tell the address of port {}", i),
                          fmt::format("give --ip{}", i));
        const std::string reason = why_no_port_address({ports[i].address, ports[i].prefix});
        if (reason.empty() || change.force) continue;
        throw Failure(Layer::Argument, "ADDRESS_REFUSED",
                      fmt::format("nothing was sent: port {} cannot have {}/{}: {}", i,
                                  dotted(ports[i].address), ports[i].prefix, reason),
                      fmt::format("give --ip{}, or --force when it is meant", i))
            .ends_with(kUsage);
    }
}

kiv_net_config_t net_of(const Change& change) {
    kiv_net_config_t net{};
    net.port_0.ip_address_0 = change.ports[0].address;
    net.port_0.prefix_length_0 = change.ports[0].prefix;
    net.port_0.vlan_enable = change.vlans[0] != 0;
    net.port_0.vlan_id = static_cast<uint16_t>(change.vlans[0]);
    net.port_1.ip_address_1 = change.ports[1].address;
    net.port_1.prefix_length_1 = change.ports[1].prefix;
    net.port_1.vlan_enable = change.vlans[1] != 0;
    net.port_1.vlan_id = static_cast<uint16_t>(change.vlans[1]);
    return net;
}

/// Waits until the card lists the addresses that were sent: a server that says "ok" may not have done it.
std::optional<Failure> why_not_seen(uint8_t id, const Change& change) {
    const auto end = std::chrono::steady_clock::now() + kApplied;
    const auto taken = [&](unsigned i, const PortAddress& now) {
        return now.address == change.ports[i].address && now.prefix == change.ports[i].prefix;
    };
    for (;;) {
        std::string seen;
        try {
            const std::array<PortAddress, 2> now = port_addresses(id);
            if (taken(0, now[0]) && taken(1, now[1])) return std::nullopt;
            seen = fmt::format("it lists {}/{} and {}/{}", dotted(now[0].address), now[0].prefix,
                               dotted(now[1].address), now[1].prefix);
        } catch (const Failure& failure) {
            seen = failure.message;
        }
        if (std::chrono::steady_clock::now() > end)
            return Failure(Layer::Card, "NOT_TAKEN",
                           fmt::format("card {} said that it takes the change, but: {}", id, seen),
                           "see \"kivctl net\"; nothing was saved")
                .of_card(id);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

/// Without an answer nobody knows what the card did.
void send(uint8_t id, const Change& change) {
    const kiv_net_config_t net = net_of(change);
    const kiv_result_t result = kiv_set_ptp_config(id, &net, &change.ptp.config);
    if (result == KIV_OK) return;
    Failure failure = failure_of(result, "changing the settings", id);
    if (result == KIV_ERR_REST)
        failure.remedy =
            "whether the card took the change is not known: see \"kivctl net\" and \"kivctl ptp\"";
    throw Failure(failure);
}

/// The configuration's words for the change. False when it has no entry for the card, whose ports then go
/// unsaved.
bool put_into(Json& file, uint8_t id, const Change& change) {
    const Json settings = to_json(change.ptp);
    file["ptp"]["announceReceiptTimeout"] = settings["announce_receipt_timeout"];
    file["ptp"]["domainNumber"] = settings["domain"];
    file["ptp"]["logAnnounceInterval"] = settings["log_announce_interval"];
    file["ptp"]["logDelayReqInterval"] = settings["log_delay_req_interval"];
    file["ptp"]["unicast_delay_req"] = change.ptp.config.enabled;
    bool found = false;
    for (Json& card : file["devices"]) {
        if (!is_entry_of(card, id)) continue;
        found = true;
        for (std::size_t i = 0; i < 2; ++i) {
            const PortAddress& port = change.ports[i];
            Json& entry = card[i == 0 ? "maceth0" : "maceth1"];
            entry["ip_addr"] = dotted(port.address);
            entry["netmask"] = dotted(port.prefix == 0 ? 0 : UINT32_MAX << (32 - port.prefix));
            entry["tos"] = settings["tos"][i];
            entry["ttl"] = settings["ttl"][i];
            entry["vlan_id"] = change.vlans[i];
        }
    }
    return found;
}

/// Says what of the change is saved. The Failure when nothing is: the card has the change all the same.
std::optional<Failure> save(uint8_t id, const Change& change) try {
    const std::string path = configuration_path();
    for (const Finding& finding : check_configuration(path)) {
        if (finding.repeated) Output::note("not kept: the first of several keys " + printable(finding.key));
    }
    bool whole = false;
    change_configuration(path, [&](Json& file) { whole = put_into(file, id, change); });
    Output::note(
        "the change is in the card, and saved in the card configuration; the former is beside it, as .bak");
    if (whole) return std::nullopt;
    return Failure(
               Layer::Configuration, "SAVED_IN_PART",
               fmt::format("not saved: addresses, VLANs, TOS and TTL, as the configuration has no entry for "
                           "card {}; the PTP settings are",
                           id),
               "add an entry for the card to \"devices\"")
        .of_card(id);
} catch (const Failure& failure) {
    Failure said(failure);
    said.name = "NOT_SAVED";
    said.message = fmt::format("card {} has taken the change, but it is not saved: {}", id, failure.message);
    return said.of_card(id);
} catch (const std::exception& error) {
    return Failure(Layer::Program, "NOT_SAVED",
                   fmt::format("card {} has taken the change, but it is not saved: {}", id, error.what()))
        .of_card(id);
}

Json to_json(const Change& change, uint8_t id) {
    Json json = document("ptp-set");
    json["card"] = id;
    json["settings"] = to_json(change.ptp);
    json["ports"] = Json::array();
    for (unsigned i = 0; i < 2; ++i) {
        Json port = port_json(i, change.ports[i]);
        port["vlan"] = change.vlans[i] == 0 ? Json("off") : Json(change.vlans[i]);
        json["ports"].push_back(port);
    }
    return json;
}

void print(const Json& json, bool as_json, Output& output) {
    if (as_json) return output.print_json(json);
    output.print_record({{"announce_receipt_timeout", "Announce receipt timeout"},
                         {"domain", "Domain"},
                         {"log_announce_interval", "Log announce interval"},
                         {"log_delay_req_interval", "Log delay request interval"},
                         {"unicast_delay_req", "Unicast delay requests"},
                         {"tos", "TOS of port 0, port 1"},
                         {"ttl", "TTL of port 0, port 1"}},
                        json["settings"]);
    output.print("\n");
    output.print_table(
        {{"port", "PORT"}, {"ip_address", "ADDRESS"}, {"prefix_length", "PREFIX"}, {"vlan", "VLAN"}},
        json["ports"]);
}

/// Whether nothing has to come from the configuration.
bool says_all(const PtpChange& change) {
    return change.unicast_delay_req && std::all_of(change.numbers.begin(), change.numbers.end(),
                                                   [](const auto& number) { return number.has_value(); });
}

/// Refuses to send what the library makes of a number in the file that the card cannot have.
void need_good_settings(const PtpChange& change, uint8_t id) {
    constexpr const char* kKeys[] = {"ptp.announceReceiptTimeout",
                                     "ptp.domainNumber",
                                     "ptp.logAnnounceInterval",
                                     "ptp.logDelayReqInterval",
                                     ".maceth0.tos",
                                     ".maceth1.tos",
                                     ".maceth0.ttl",
                                     ".maceth1.ttl"};
    if (configuration_problem()) return;  // Then nothing comes from the file.
    for (const Finding& finding : check_settings(configuration_path(), id)) {
        bool given = finding.key == "ptp.unicast_delay_req" && change.unicast_delay_req;
        for (std::size_t i = 0; i < std::size(kKeys); ++i)
            given = given || (finding.key.ends_with(kKeys[i]) && change.numbers[i]);
        if (given) continue;
        throw Failure(Layer::Configuration, "CONFIGURATION",
                      "nothing was sent: in the card configuration, " + finding.text(),
                      "mend it there, or give the option for it")
            .of_card(id);
    }
}

void check_words(const Request& request) {
    for (std::size_t i = 0; i < 2; ++i) {
        if (!request.ptp.vlan[i])
            throw usage(
                fmt::format(
                    "nothing was sent: --vlan{} is missing. A card does not tell its VLANs, and takes "
                    "them with every change: what is not said would be switched off",
                    i),
                "give --vlan0 and --vlan1, each with a number or \"off\"");
        if (!request.ptp.address[i] || request.ptp.force) continue;
        const std::string reason = why_no_port_address(*request.ptp.address[i]);
        if (!reason.empty())
            throw usage(
                fmt::format("nothing was sent: --ip{}: no port can have {}/{}: {}", i,
                            dotted(request.ptp.address[i]->address), request.ptp.address[i]->prefix, reason),
                "--force sends it all the same");
    }
    if (request.ptp.save && request.ptp.dry_run) throw usage("--save and --dry-run exclude each other");
}

}  // namespace

Options ptp_set_options(Request& request) {
    PtpChange& change = request.ptp;
    std::vector<Option> options;
    for (std::size_t i = 0; i < std::size(kNumbers); ++i) {
        const auto& [name, help, least, most] = kNumbers[i];
        options.push_back(number_option(name, help, std::to_string(least) + ".." + std::to_string(most),
                                        least, most, change.numbers[i]));
    }
    const auto on_off = [&change](const std::string& text) -> std::string {
        if (text != "on" && text != "off") return quoted(text) + " is neither on nor off";
        change.unicast_delay_req = text == "on";
        return "";
    };
    options.push_back({"--unicast-delay-req", "Send delay requests unicast", "on|off", on_off});
    for (const unsigned i : {0u, 1u}) {
        const std::string number = std::to_string(i);
        const auto address = [&change, i](const std::string& text) -> std::string {
            change.address[i] = network_of(text);
            return change.address[i] ? "" : quoted(text) + " is no address like 192.168.10.11/24";
        };
        const auto vlan = [&change, i](const std::string& text) -> std::string {
            change.vlan[i] = text == "off" ? 0 : number_of(text, 1, 4094);
            return change.vlan[i] ? "" : quoted(text) + " is no VLAN: 1 to 4094, or off";
        };
        options.push_back(
            {"--ip" + number, "Address and prefix length of port " + number, "A.B.C.D/N", address});
        options.push_back({"--vlan" + number, "VLAN of port " + number + "; has to be said", "N|off", vlan});
    }
    options.push_back(
        {"--save", "Keep the settings in the card configuration too", "", nullptr, &change.save});
    options.push_back(
        {"--dry-run", "Show what would be sent, and send nothing", "", nullptr, &change.dry_run});
    options.push_back({"--force", "Also addresses that no port can have", "", nullptr, &change.force});
    return {options,
            "What is not given keeps its value: addresses as the card has them, PTP as in the card\n"
            "configuration. A card does not tell its VLANs: both have to be said with every change."};
}

Exit ptp_set(const Request& request, Output& output) {
    check_words(request);
    if (!says_all(request.ptp)) need_configuration();
    const uint8_t id = open_card(request.card, Asks::Server).device.device_id;
    Change change{port_addresses(id), {*request.ptp.vlan[0], *request.ptp.vlan[1]}, ptp_settings(id)};
    need_good_settings(request.ptp, id);
    change_addresses(request.ptp, change.ports);
    change_ptp(request.ptp, change.ptp);
    Json json = to_json(change, id);
    json["sent"] = !request.ptp.dry_run;
    json["saved"] = false;
    json["error"] = nullptr;
    if (request.ptp.dry_run) {
        print(json, request.json, output);
        Output::note("nothing was sent: this is what would be");
        return kDone;
    }
    guard().also_say("the card may have taken the change: see \"kivctl net\" and \"kivctl ptp\"");
    send(id, change);
    std::optional<Failure> failure = why_not_seen(id, change);
    if (!failure) {
        Output::note(
            "the card lists the addresses that were sent; VLANs, TOS, TTL and PTP settings cannot be read "
            "back");
        if (request.ptp.save) {
            failure = save(id, change);
        } else {
            Output::note(
                "the change is in the card, not in the card configuration: the next \"ptp set\" starts from "
                "the PTP "
                "settings there; --save keeps a change");
        }
    }
    json["saved"] = request.ptp.save && !failure;
    json["error"] = failure ? failure->json() : Json();
    print(json, request.json, output);
    if (failure) Output::note(failure->text());
    return failure ? kFailed : kDone;
}

}  // namespace kivctl
