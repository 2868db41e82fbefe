// What the management server of a card tells.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/ipText.h"
#include "card/Firmware.h"
#include "common/hex.h"
#include "server/endpoints.h"
#include "settings/parts.h"

namespace kivsim {

namespace {

using Node = ConfigNode;

constexpr const char* kWrappings[] = {"object", "text", "none"};  // In the order of the enumeration.

std::string slot_of(const Node& node) {
    std::string text = node.text();
    if (text.size() != 32 || !bytes_of_hex(text)) node.complain("must be 32 hexadecimal digits");
    return text;
}

/// A phase of a write, or null for none.
std::string phase_of(const Node& node) {
    if (node.json().is_null()) return "";
    std::string text = node.text();
    if (std::find(std::begin(kFlashPhases), std::end(kFlashPhases), text) == std::end(kFlashPhases))
        node.complain("must be \"erasing\", \"writing\", \"verifying\" or null");
    return text;
}

}  // namespace

void read_tunnel(const Node& node, CardSettings& card) {
    node.members({"address", "port"});
    if (node.has("address")) card.tunnel_address = node.at("address").address();
    take(node, "port", card.tunnel_port);
}

Json tunnel_json(const CardSettings& card) {
    return {{"address", uint32ToIp(card.tunnel_address)}, {"port", card.tunnel_port}};
}

void read_server(const Node& node, CardSettings& card) {
    if (node.text() != "external") node.complain("can only be \"external\"");
    card.external_server = true;
}

Json server_json(const CardSettings& card) {
    return card.external_server ? Json("external") : Json(Json::value_t::discarded);
}

InterfaceSettings interface_of(const Node& node) {
    node.members({"if_name", "ip_addr", "netmask", "hw_addr"});
    return {node.at("if_name").text(), node.at("ip_addr").text(), node.at("netmask").text(),
            node.at("hw_addr").text()};
}

Membership membership_of(const Node& node) {
    node.members({"pid", "dst_ip_addr", "if_name", "ssm_source_addr"});
    const Node pid = node.at("pid");
    const bool negative = pid.json().is_number_integer() && !pid.json().is_number_unsigned();
    return {negative ? pid.json().get<int64_t>() : pid.number<int64_t>(), node.at("dst_ip_addr").text(),
            node.at("if_name").text(), node.at("ssm_source_addr").text()};
}

void read_firmware(const Node& node, CardSettings& card) {
    node.members({"slots", "next_boot_slot", "status", "fails_while"});
    if (node.has("slots")) {
        std::vector<std::string> slots;
        node.at("slots").each([&](const Node& item) { slots.push_back(slot_of(item)); });
        if (slots.size() != 2) node.at("slots").complain("must have two entries");
        std::copy(slots.begin(), slots.end(), card.firmware.slots);
    }
    take(node, "next_boot_slot", card.firmware.next_boot_slot);
    if (card.firmware.next_boot_slot > 1) node.at("next_boot_slot").complain("must be 0 or 1");
    if (node.has("status")) card.firmware.status = node.at("status").text();
    if (node.has("fails_while")) card.firmware.fails_while = phase_of(node.at("fails_while"));
}

Json firmware_json(const CardSettings& card) {
    const std::string& fails_while = card.firmware.fails_while;
    return {{"slots", card.firmware.slots},
            {"next_boot_slot", card.firmware.next_boot_slot},
            {"status", card.firmware.status.value_or("idle")},
            {"fails_while", fails_while.empty() ? Json() : Json(fails_while)}};
}

void read_answers(const Node& node, CardSettings& card) {
    card.answers.clear();
    node.each_member([&](const std::string& path, const Node& payload) {
        if (!is_answer_of_server(path))
            payload.complain("is no path that the management server answers GET at");
        card.answers[path] = text_of(payload.json());
    });
}

Json answers_json(const CardSettings& card) {
    Json json = Json::object();
    for (const auto& [path, payload] : card.answers)
        json[path] = parse_json(payload);
    return json;
}

void read_wrapping(const Node& node, CardSettings& card) {
    const std::string text = node.text();
    const auto found = std::find(std::begin(kWrappings), std::end(kWrappings), text);
    if (found == std::end(kWrappings)) node.complain("must be \"object\", \"text\" or \"none\"");
    card.wrapping = static_cast<Wrapping>(found - std::begin(kWrappings));
}

Json wrapping_json(const CardSettings& card) {
    return kWrappings[static_cast<std::size_t>(card.wrapping)];
}

}  // namespace kivsim
