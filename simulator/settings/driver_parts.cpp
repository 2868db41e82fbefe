// What the driver tells of a card.
#include <algorithm>
#include <charconv>
#include <iterator>
#include <nlohmann/json.hpp>
#include <span>

#include "base/ipText.h"
#include "card/BarMemory.h"
#include "common/hex.h"
#include "driver/wire.h"
#include "settings/parts.h"

namespace kivsim {

namespace {
using Node = ConfigNode;
}

void read_identity(const Node& node, CardSettings& card) {
    node.members({"kind", "value", "text"});
    take(node, "kind", card.identity_kind);
    take(node, "value", card.identity);
    if (!node.has("text")) return;
    card.identity_text = node.at("text").text();
    if (card.identity_text.size() > sizeof(kiv::wire::BootConf::identity_text)) {
        node.at("text").complain("must have at most 64 characters");
    }
}

Json identity_json(const CardSettings& card) {
    return {{"kind", card.identity_kind}, {"value", hex_number(card.identity)}, {"text", card.identity_text}};
}

FunctionSettings function_of(const Node& node) {
    node.members({"number", "connection_type", "pci_link"});
    FunctionSettings function;
    function.number = node.at("number").number<uint8_t>();
    function.connection_type = node.at("connection_type").number<uint32_t>();
    if (node.has("pci_link")) node.at("pci_link").numbers(function.pci_link);
    return function;
}

Json json_of(const FunctionSettings& function) {
    return {{"number", function.number},
            {"connection_type", function.connection_type},
            {"pci_link", function.pci_link}};
}

Json function_types(const CardSettings& card) {
    Json json = Json::array();
    for (const FunctionSettings& function : card.functions)
        json.push_back({function.number, function.connection_type});
    return json;
}

/// Lanes and generation: for all PCI functions, or by their numbers.
void read_pci_links(const Node& node, CardSettings& card) {
    if (node.json().is_array()) {
        for (FunctionSettings& function : card.functions)
            node.numbers(function.pci_link);
        return;
    }
    node.each_member([&](const std::string& text, const Node& item) {
        uint64_t number = 0;
        const bool is_number = Node::parse(text, number);
        const auto function =
            std::find_if(card.functions.begin(), card.functions.end(),
                         [&](const FunctionSettings& candidate) { return candidate.number == number; });
        if (!is_number || function == card.functions.end()) item.complain("is no PCI function of the card");
        item.numbers(function->pci_link);
    });
}

void read_driver_version(const Node& node, CardSettings& card) {
    const std::string text = node.text();
    const char* at = text.data();
    const char* const end = at + text.size();
    for (uint16_t& number : card.driver_version) {
        const bool first = &number == card.driver_version.data();
        if (!first && (at == end || *at++ != '.')) at = end;
        const auto [behind, error] = std::from_chars(at, end, number);
        if (error != std::errc{}) node.complain("must be three numbers such as \"1.4.0\"");
        at = behind;
    }
    if (at != end) node.complain("must be three numbers such as \"1.4.0\"");
}

Json driver_version_json(const CardSettings& card) {
    const auto& [major, minor, patch] = card.driver_version;
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

void read_registers(const Node& node, CardSettings& card) {
    card.registers.clear();
    node.each_member([&](const std::string& bar_text, const Node& bar_node) {
        uint64_t bar = 0;
        if (!Node::parse(bar_text, bar) || bar >= BarMemory::kBars)
            bar_node.complain("BARs are \"0\" to \"5\"");
        bar_node.each_member([&](const std::string& offset_text, const Node& value) {
            RegisterSettings entry{static_cast<uint32_t>(bar), 0, value.number<uint64_t>()};
            if (!Node::parse(offset_text, entry.offset) ||
                !BarMemory::inside(entry.bar, entry.offset, entry.size())) {
                value.complain("must be an offset inside a BAR of 16 MiB");
            }
            card.registers.push_back(entry);
        });
    });
}

Json registers_json(const CardSettings& card) {
    Json json = Json::object();
    for (const RegisterSettings& entry : card.registers) {
        Json& bar = json[std::to_string(entry.bar)];
        if (bar.is_null()) bar = Json::object();
        if (bar.size() == kMostMembers)
            throw BadConfig("more registers of BAR " + std::to_string(entry.bar) +
                            " are not zero than a cards file can hold");
        // Not bar[...], which would look for the key among all.
        bar.get_ref<Json::object_t&>().emplace_back(hex_number(entry.offset), hex_number(entry.value));
    }
    return json;
}

void read_links(const Node& node, CardSettings& card) {
    const Json& links = node.json();
    if (!links.is_array() || links.size() != 2 || !links[0].is_boolean() || !links[1].is_boolean())
        node.complain("must be two of true and false");
    card.links = {links[0].get<bool>(), links[1].get<bool>()};
}

Json links_json(const CardSettings& card) {
    return card.links ? Json(*card.links) : Json(Json::value_t::discarded);
}

void read_ptp_state(const Node& node, CardSettings& card) {
    const Json& state = node.json();
    if (!state.is_null() && state != 0 && state != 1 && state != 3) node.complain("must be 0, 1, 3 or null");
    card.ptp_state = state.is_null() ? kNoPtpState : state.get<int>();
}

Json ptp_state_json(const CardSettings& card) {
    if (!card.ptp_state) return Json::value_t::discarded;
    return *card.ptp_state == kNoPtpState ? Json() : Json(*card.ptp_state);
}

void read_addresses(const Node& node, CardSettings& card) {
    std::vector<uint32_t> addresses;
    node.each([&](const Node& item) { addresses.push_back(item.address()); });
    if (addresses.size() != 2) node.complain("must have two entries, one for each media port");
    std::copy(addresses.begin(), addresses.end(), card.addresses);
}

Json addresses_json(const CardSettings& card) {
    return {uint32ToIp(card.addresses[0]), uint32ToIp(card.addresses[1])};
}

void read_resources(const Node& node, CardSettings& card) {
    node.members({"tx", "rx"});
    if (node.has("tx")) node.at("tx").numbers(card.resources.tx);
    if (node.has("rx")) node.at("rx").numbers(card.resources.rx);
}

Json resources_json(const CardSettings& card) {
    return {{"tx", card.resources.tx}, {"rx", card.resources.rx}};
}

void read_anc(const Node& node, CardSettings& card) {
    node.members({"direction", "descriptors", "control"});
    if (node.has("direction")) card.anc.direction = node.at("direction").boolean();
    if (node.has("descriptors")) {
        const auto bytes = bytes_of_hex(node.at("descriptors").text());
        constexpr std::size_t kSize = 2 * sizeof(uint64_t);
        if (!bytes || bytes->size() % kSize != 0 || bytes->size() > kSize * kiv::wire::kAncSlots)
            node.at("descriptors")
                .complain("must be 32 hexadecimal digits for each of up to 255 descriptors");
        card.anc.descriptors.resize(bytes->size() / kSize);
        std::copy(bytes->begin(), bytes->end(),
                  std::as_writable_bytes(std::span(card.anc.descriptors)).begin());
    }
    if (!node.has("control")) return;
    const Node control = node.at("control");
    uint32_t numbers[3];
    control.numbers(numbers);
    card.anc.a = static_cast<uint8_t>(numbers[0]);
    card.anc.b = numbers[1];
    card.anc.c = static_cast<uint16_t>(numbers[2]);
    if (card.anc.a != numbers[0] || card.anc.c != numbers[2])
        control.complain("must be numbers of 8, 32 and 16 bits");
}

Json anc_json(const CardSettings& card) {
    const AncSettings& anc = card.anc;
    return {{"direction", anc.direction},
            {"descriptors", hex(std::as_bytes(std::span(anc.descriptors)))},
            {"control", {anc.a, anc.b, anc.c}}};
}

}  // namespace kivsim
