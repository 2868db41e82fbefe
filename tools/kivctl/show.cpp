// Commands that look at cards.
#include <fmt/format.h>

#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

#include "cards.h"
#include "commands.h"

namespace kivctl {

namespace {

/// A percentage; one that is infinite or no number says nothing.
Json percent(double load) {
    return std::isfinite(load) ? Json(load) : Json();
}

Json to_json(const kiv_stream_status_t& status) {
    return {{"control", status.control},
            {"control_bit_25", status.control_bit_25},
            {"control_bit_26", status.control_bit_26},
            {"reg_404", status.reg_404},
            {"reg_804", status.reg_804},
            {"resources", {status.resource_0, status.resource_1, status.resource_2}}};
}

}  // namespace

void scan(const Request& request, Output& output) {
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows{{"ID", "CARD WORD", "PORT 0", "PORT 1", "SERVER"}};
    for (const auto& [card, tunnel] : scan_cards()) {
        const std::vector<std::string> row{
            std::to_string(card.device_id), hex64(card.card_word), dotted(card.ip_address_0),
            dotted(card.ip_address_1),
            fmt::format("{}:{}", dotted(tunnel.tunnel_address), tunnel.tunnel_value)};
        rows.push_back(row);
        list.push_back(
            {{"id", card.device_id}, {"card_word", row[1]}, {"ports", {row[2], row[3]}}, {"server", row[4]}});
    }
    if (request.json) {
        output.print_json(list);
    } else if (rows.size() > 1) {
        output.print_table(rows);
    }
}

void info(const Request& request, Output& output) {
    scan_cards();
    kiv_card_info_t card{};
    check(kiv_get_card_info(request.id, &card), "card information");
    const std::array<PortAddress, 2> addresses = port_addresses(request.id);

    const struct {
        const char* offset;
        uint64_t value;
    } registers[] = {
        {"0x00", card.reg_00}, {"0x08", card.reg_08}, {"0x10", card.reg_10}, {"0x18", card.reg_18}};
    Json json{{"id", request.id}};
    std::vector<std::vector<std::string>> rows{{"Card", std::to_string(request.id)}};
    for (const auto& [offset, value] : registers) {
        json["registers"][offset] = hex64(value);
        rows.push_back({fmt::format("Register {}", offset), hex64(value)});
    }
    for (unsigned i = 0; i < 2; ++i) {
        const kiv_card_port_t& port = card.port[i];
        const Json mac = port.mac_address[0] == '\0' ? Json() : Json(port.mac_address);
        Json entry{{"mac_address", mac}, {"link_speed_gbps", port.link_speed_gbps}};
        entry.update(to_json(addresses[i]));
        rows.push_back({fmt::format("Port {}", i),
                        fmt::format("{}/{}, MAC {}, {} Gbit/s", text_of(entry["ip_address"]),
                                    text_of(entry["prefix_length"]), text_of(mac), port.link_speed_gbps)});
        json["ports"].push_back(entry);
    }
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table(rows);
    }
}

void status(const Request& request, Output& output) {
    scan_cards();
    constexpr uint8_t kUntouched = UINT8_MAX;
    kiv_card_status_t status{};
    status.pci_link_b = kUntouched;
    check(kiv_get_card_status(request.id, &status), "card status");

    Json json{{"id", request.id}, {"sensors", Json::array()}, {"board_power", status.board_power}};
    for (unsigned i = 0; i < std::size(status.sensor); ++i) {
        const kiv_sensor_t& sensor = status.sensor[i];
        json["sensors"].push_back({{"name", kSensorNames[i]},
                                   {"input", sensor.input},
                                   {"max", sensor.max},
                                   {"critical", sensor.critical}});
    }
    // Without an answer of the driver the first value is 0 too, which says as little.
    json["pci_link"] = {nullptr, nullptr};
    if (status.pci_link_b != kUntouched) json["pci_link"] = {status.pci_link_a, status.pci_link_b};
    if (request.json) return output.print_json(json);
    output.print_table({{"name", "SENSOR"}, {"input", "NOW"}, {"max", "MAX"}, {"critical", "CRITICAL"}},
                       json["sensors"]);
    output.print("\n");
    output.print_record({{"board_power", "Board power"}, {"pci_link", "PCI link"}}, json);
}

void net(const Request& request, Output& output) {
    scan_cards();
    Json json{{"id", request.id}, {"ports", Json::array()}};
    for (const PortAddress& port : port_addresses(request.id)) {
        json["ports"].push_back({{"port", json["ports"].size()}});
        json["ports"].back().update(to_json(port));
    }
    if (request.json) return output.print_json(json);
    output.print_table({{"port", "PORT"}, {"ip_address", "ADDRESS"}, {"prefix_length", "PREFIX"}},
                       json["ports"]);
}

void link(const Request& request, Output& output) {
    scan_cards();
    kiv_net_status_t status{};
    check(kiv_get_net_status(request.id, &status), "link status");
    const uint32_t up[] = {status.link_up_0, status.link_up_1};
    Json json{{"id", request.id}, {"ports", Json::array()}};
    for (unsigned i = 0; i < 2; ++i) {
        json["ports"].push_back({{"port", i},
                                 {"link", up[i] != 0 ? "up" : "down"},
                                 {"load_a", percent(status.load_a[i])},
                                 {"load_b", percent(status.load_b[i])}});
    }
    if (request.json) return output.print_json(json);
    output.print_table({{"port", "PORT"}, {"link", "LINK"}, {"load_a", "LOAD A %"}, {"load_b", "LOAD B %"}},
                       json["ports"]);
}

void streams(const Request& request, Output& output) {
    scan_cards();
    kiv_tx_stream_status_t tx{};
    kiv_rx_stream_status_t rx{};
    check(kiv_get_tx_stream_status(request.id, &tx), "transmit stream status");
    check(kiv_get_rx_stream_status(request.id, &rx), "receive stream status");
    const Json json{{"id", request.id}, {"tx", to_json(tx)}, {"rx", to_json(rx)}};
    if (request.json) return output.print_json(json);
    std::vector<std::vector<std::string>> rows{{"", "TRANSMIT", "RECEIVE"}};
    constexpr Name kLines[] = {{"control", "Control"},
                               {"control_bit_25", "Control, bit 25"},
                               {"control_bit_26", "Control, bit 26"},
                               {"reg_404", "Register 0x404"},
                               {"reg_804", "Register 0x804"},
                               {"resources", "Resources in use"}};
    for (const Name& line : kLines)
        rows.push_back({line.text, text_of(json["tx"][line.key]), text_of(json["rx"][line.key])});
    output.print_table(rows);
}

void time(const Request& request, Output& output) {
    scan_cards();
    uint64_t epoch = 0;
    uint64_t point_1 = 0;
    uint64_t point_2 = 0;
    check(kiv_get_epoch_and_2point(request.id, &epoch, &point_1, &point_2), "time");
    const Json json{{"id", request.id}, {"epoch", epoch}, {"point_1", point_1}, {"point_2", point_2}};
    if (request.json) return output.print_json(json);
    output.print_record(
        {{"epoch", "PTP time"}, {"point_1", "System clock before"}, {"point_2", "System clock after"}}, json);
}

}  // namespace kivctl
