// Commands that look at one card.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "cards.h"
#include "commands.h"
#include "records.h"
#include "time_text.h"

namespace kivctl {

namespace {

Json document_of(const char* command, uint8_t id) {
    Json json = document(command);
    json["card"] = id;
    return json;
}

/// TAI-UTC in seconds, as the PTP master tells it and says that it is valid.
std::optional<int32_t> utc_offset(uint8_t id) {
    kiv_ptp_status_t status{};
    if (kiv_get_ptp_status(id, &status) != KIV_OK || status.is_master == 0) return std::nullopt;
    return static_cast<int32_t>(status.master_value);
}

}  // namespace

Exit info(const Request& request, Output& output) {
    const uint8_t id = open_card(request.card, Asks::Server).device.device_id;
    kiv_card_info_t card{};
    check(kiv_get_card_info(id, &card), "asking for its identity", id);
    const std::array<PortAddress, 2> addresses = port_addresses(id);

    Json json = document_of("info", id);
    json["registers"] = {{"0x00", hex64(card.reg_00)},
                         {"0x08", hex64(card.reg_08)},
                         {"0x10", hex64(card.reg_10)},
                         {"0x18", hex64(card.reg_18)}};
    json["ports"] = Json::array();
    for (unsigned i = 0; i < 2; ++i) {
        const kiv_card_port_t& port = card.port[i];
        Json entry = port_json(i, addresses[i]);
        entry["mac"] = *port.mac_address == '\0' ? Json() : Json(port.mac_address);
        entry["link_speed_gbps"] = port.link_speed_gbps;
        json["ports"].push_back(entry);
    }
    if (request.json) {
        output.print_json(json);
        return kDone;
    }
    std::vector<std::vector<std::string>> rows{{"Card", std::to_string(id)}};
    for (const auto& [offset, value] : json["registers"].items())
        rows.push_back({"Register " + offset, text_of(value)});
    for (const Json& port : json["ports"]) {
        rows.push_back({fmt::format("Port {}", text_of(port["port"])),
                        fmt::format("{}/{}, MAC {}, {} Gbit/s", text_of(port["ip_address"]),
                                    text_of(port["prefix_length"]), text_of(port["mac"]),
                                    text_of(port["link_speed_gbps"]))});
    }
    output.print_table(rows);
    return kDone;
}

Exit status(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Server);
    const uint8_t id = card.device.device_id;
    constexpr uint8_t kUntouched = UINT8_MAX;
    kiv_card_status_t status{};
    status.pci_link_b = kUntouched;
    check(kiv_get_card_status(id, &status), "asking for its status", id);

    Json json = document_of("status", id);
    Json sensors = Json::array();
    for (unsigned i = 0; i < std::size(status.sensor); ++i)
        sensors.push_back(sensor_json(i, status.sensor[i]));
    leave_out_unreadable(server_of(card).get("/hps/hwmon/info"), sensors);
    const bool alarm = std::any_of(sensors.begin(), sensors.end(), is_alarm);
    json["attention"] = alarm;
    json["sensors"] = sensors;
    json["board_power"] = power_json(status.board_power);
    json["pci_link"] =
        status.pci_link_b == kUntouched ? Json() : pci_link_json(status.pci_link_b, status.pci_link_a);
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table({{"name", "SENSOR"},
                            {"input", "NOW"},
                            {"max", "MAX"},
                            {"critical", "CRITICAL"},
                            {"state", "STATE"}},
                           json["sensors"]);
        output.print("\n");
        output.print_record({{"board_power", "Board power"}, {"pci_link", "PCI link"}}, json);
    }
    if (alarm) Output::note(fmt::format("card {} needs attention: a sensor is at or above its limit", id));
    return alarm ? kAttention : kDone;
}

Exit net(const Request& request, Output& output) {
    const uint8_t id = open_card(request.card, Asks::Server).device.device_id;
    Json json = document_of("net", id);
    json["ports"] = Json::array();
    for (const PortAddress& port : port_addresses(id))
        json["ports"].push_back(port_json(static_cast<unsigned>(json["ports"].size()), port));
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table({{"port", "PORT"}, {"ip_address", "ADDRESS"}, {"prefix_length", "PREFIX"}},
                           json["ports"]);
    }
    return kDone;
}

Exit link(const Request& request, Output& output) {
    const uint8_t id = open_card(request.card, Asks::Driver).device.device_id;
    kiv_net_status_t status{};
    check(kiv_get_net_status(id, &status), "asking for its links", id);
    Json json = document_of("link", id);
    json["ports"] = ports_json(status);
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table({{"port", "PORT"},
                            {"link", "LINK"},
                            {"load_a_percent", "LOAD A %"},
                            {"load_b_percent", "LOAD B %"}},
                           json["ports"]);
    }
    return kDone;
}

Exit streams(const Request& request, Output& output) {
    const uint8_t id = open_card(request.card, Asks::Driver).device.device_id;
    kiv_tx_stream_status_t tx{};
    kiv_rx_stream_status_t rx{};
    check(kiv_get_tx_stream_status(id, &tx), "asking for its transmit streams", id);
    check(kiv_get_rx_stream_status(id, &rx), "asking for its receive streams", id);
    Json json = document_of("streams", id);
    json["tx"] = stream_json(tx);
    json["rx"] = stream_json(rx);
    if (request.json) {
        output.print_json(json);
        return kDone;
    }
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
    return kDone;
}

Exit time(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Driver);
    const uint8_t id = card.device.device_id;
    uint64_t epoch = 0;
    uint64_t point_1 = 0;
    uint64_t point_2 = 0;
    check(kiv_get_epoch_and_2point(id, &epoch, &point_1, &point_2), "asking for its time", id);
    Json json = document_of("time", id);
    json["ptp_time"] = tai_json(epoch, card.result == KIV_OK ? utc_offset(id) : std::nullopt);
    json["system_before"] = std::to_string(point_1);
    json["system_after"] = std::to_string(point_2);
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_record({{"ptp_time", "PTP time"},
                             {"system_before", "System clock before, ns"},
                             {"system_after", "System clock after, ns"}},
                            json);
    }
    return kDone;
}

}  // namespace kivctl
