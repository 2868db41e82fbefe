#include "commands.h"

#include <fmt/format.h>

#include <algorithm>

#include "no_card.h"

namespace kivctl {

namespace {

std::string server_text(const kiv_scan_card_device_internal_t& tunnel) {
    return fmt::format("{}:{}", dotted(tunnel.tunnel_address), tunnel.tunnel_value);
}

struct Found {
    kiv_scan_card_device_t card;
    kiv_scan_card_device_internal_t tunnel;
};

/// The cards of this machine, by id. Says so when there are none.
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

void scan(const Request& request, Output& output) {
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows{{"ID", "CARD WORD", "PORT 0", "PORT 1", "SERVER"}};
    for (const auto& [card, tunnel] : scan_cards()) {
        const std::vector<std::string> row{std::to_string(card.device_id), hex64(card.card_word),
                                           dotted(card.ip_address_0), dotted(card.ip_address_1),
                                           server_text(tunnel)};
        rows.push_back(row);
        list.push_back(
            {{"id", card.device_id}, {"card_word", row[1]}, {"ports", {row[2], row[3]}}, {"server", row[4]}});
    }
    if (request.json) {
        output.print(list);
    } else if (rows.size() > 1) {
        output.print_table(rows);
    }
}

void info(const Request& request, Output& output) {
    scan_cards();
    kiv_card_info_t card{};
    kiv_net_config_t net{};
    check(kiv_get_card_info(request.id, &card), "card information");
    check(kiv_get_media_net_config(request.id, &net), "media network configuration");

    const struct {
        uint32_t address;
        uint32_t prefix;
    } ports[2] = {{net.port_0.ip_address_0, net.port_0.prefix_length_0},
                  {net.port_1.ip_address_1, net.port_1.prefix_length_1}};
    Json json{{"id", request.id},
              {"registers",
               {{"0x00", hex64(card.reg_00)},
                {"0x08", hex64(card.reg_08)},
                {"0x10", hex64(card.reg_10)},
                {"0x18", hex64(card.reg_18)}}},
              {"ports", Json::array()}};
    std::vector<std::vector<std::string>> rows{{"Card", std::to_string(request.id)},
                                               {"Register 0x00", hex64(card.reg_00)},
                                               {"Register 0x08", hex64(card.reg_08)},
                                               {"Register 0x10", hex64(card.reg_10)},
                                               {"Register 0x18", hex64(card.reg_18)}};
    for (unsigned i = 0; i < 2; ++i) {
        const kiv_card_port_t& port = card.port[i];
        json["ports"].push_back({{"mac_address", port.mac_address},
                                 {"link_speed_gbps", port.link_speed_gbps},
                                 {"ip_address", dotted(ports[i].address)},
                                 {"prefix_length", ports[i].prefix}});
        rows.push_back({fmt::format("Port {}", i),
                        fmt::format("{}/{}, MAC {}, {} Gbit/s", dotted(ports[i].address), ports[i].prefix,
                                    port.mac_address, port.link_speed_gbps)});
    }
    if (request.json) {
        output.print(json);
    } else {
        output.print_table(rows);
    }
}

constexpr Command kCommands[] = {
    {"scan", "List the cards of this machine", false, scan},
    {"info", "Show one card: identity, ports, addresses", true, info},
};

}  // namespace

std::span<const Command> commands() {
    return kCommands;
}

}  // namespace kivctl
