// The card configuration of this machine.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "configuration.h"

namespace kivctl {

Exit config_check(const Request& request, Output& output) {
    const std::string path = configuration_path();
    const std::vector<Finding> findings = check_configuration(path);
    const bool bad = std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.fatal; });
    if (request.json) {
        Json json = document("config-check");
        json["path"] = path;
        json["usable"] = !bad;
        json["findings"] = Json::array();
        for (const Finding& finding : findings) {
            json["findings"].push_back({{"line", finding.line == 0 ? Json() : Json(finding.line)},
                                        {"key", finding.key.empty() ? Json() : Json(finding.key)},
                                        {"problem", finding.problem},
                                        {"fatal", finding.fatal}});
        }
        output.print_json(json);
    } else {
        for (const Finding& finding : findings)
            output.print(path + ": " + finding.text() + (finding.fatal ? "\n" : " (warning)\n"));
        if (findings.empty()) output.print(path + ": good\n");
    }
    return bad ? kFailed : findings.empty() ? kDone : kAttention;
}

Exit config_init(const Request& request, Output& output) {
    const std::string path = configuration_path();
    create_configuration(path, kSampleConfiguration);
    if (request.json) {
        Json json = document("config-init");
        json["path"] = path;
        output.print_json(json);
    } else {
        output.print(path + ": made from the sample; put your cards' ids and addresses into it\n");
    }
    return kDone;
}

Exit config_show(const Request& request, Output& output) {
    const std::string path = configuration_path();
    const Json file = read_configuration(path);
    if (request.json) {
        Json json = document("config-show");
        json["path"] = path;
        json["configuration"] = file;
        output.print_json(json);
        return kDone;
    }
    output.print_table({{"File", path}});
    output.print("\n");
    output.print_record({{"announceReceiptTimeout", "Announce receipt timeout"},
                         {"domainNumber", "Domain"},
                         {"logAnnounceInterval", "Log announce interval"},
                         {"logDelayReqInterval", "Log delay request interval"},
                         {"unicast_delay_req", "Unicast delay requests"}},
                        file["ptp"]);
    output.print("\n");
    std::vector<std::vector<std::string>> rows{
        {"CARD", "CHIP", "PORT", "ADDRESS", "NETMASK", "TOS", "TTL", "VLAN"}};
    for (const Json& card : file["devices"]) {
        for (unsigned i = 0; i < 2; ++i) {
            const Json& port = card[i == 0 ? "maceth0" : "maceth1"];
            rows.push_back({text_of(card["device_id"]), text_of(card["chip_id"]), std::to_string(i),
                            text_of(port["ip_addr"]), text_of(port["netmask"]), text_of(port["tos"]),
                            text_of(port["ttl"]), text_of(port["vlan_id"])});
        }
    }
    output.print_table(rows);
    return kDone;
}

}  // namespace kivctl
