#include "settings/members.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <type_traits>
#include <utility>
#include <vector>

#include "server/endpoints.h"
#include "settings/faults.h"
#include "settings/parts.h"

namespace kivsim {

namespace {

using Node = ConfigNode;

struct Member {
    const char* key;
    void (*read)(const Node& node, CardSettings& card);
    /// A discarded value is left out.
    Json (*write)(const CardSettings& card);
    /// What of it cannot change while the card runs; null: it can.
    Json (*fixed)(const CardSettings& card) = nullptr;
};

template <auto member>
void number(const Node& node, CardSettings& card) {
    card.*member = node.number<std::remove_reference_t<decltype(card.*member)>>();
}

template <auto member>
void text(const Node& node, CardSettings& card) {
    card.*member = node.text();
}

template <auto member>
void boolean(const Node& node, CardSettings& card) {
    card.*member = node.boolean();
}

template <auto member>
Json value(const CardSettings& card) {
    return card.*member;
}

template <auto member>
void payload(const Node& node, CardSettings& card) {
    card.*member = text_of(node.json());
}

template <auto member>
Json payload_value(const CardSettings& card) {
    return parse_json(card.*member);
}

template <auto member, auto of_node>
void list(const Node& node, CardSettings& card) {
    (card.*member).clear();
    node.each([&](const Node& item) { (card.*member).push_back(of_node(item)); });
}

template <auto member>
Json list_value(const CardSettings& card) {
    Json json = Json::array();
    for (const auto& entry : card.*member)
        json.push_back(json_of(entry));
    return json;
}

Json left_out(const CardSettings&) {
    return Json::value_t::discarded;
}

// clang-format off
constexpr Member kMembers[] = {  // Read in this order: a later one may rest on those above it.
    {"id",             number<&CardSettings::id>,                 value<&CardSettings::id>, value<&CardSettings::id>},
    {"identity",       read_identity,                             identity_json},
    {"bus",            number<&CardSettings::bus>,                value<&CardSettings::bus>},
    {"device",         number<&CardSettings::device>,             value<&CardSettings::device>},
    {"functions",      list<&CardSettings::functions, function_of>, list_value<&CardSettings::functions>, function_types},
    {"pci_link",       read_pci_links,                            left_out},  // Written with the functions.
    {"driver_version", read_driver_version,                       driver_version_json},
    {"registers",      read_registers,                            registers_json},
    {"links",          read_links,                                links_json},
    {"ptp_state",      read_ptp_state,                            ptp_state_json},
    {"addresses",      read_addresses,                            addresses_json},
    {"ptp_selected",   number<&CardSettings::ptp_selected>,       value<&CardSettings::ptp_selected>},
    {"resources",      read_resources,                            resources_json},
    {"anc",            read_anc,                                  anc_json},
    {"tunnel",         read_tunnel,                               tunnel_json, tunnel_json},
    {"server",         read_server,                               server_json, value<&CardSettings::external_server>},
    {"interfaces",     list<&CardSettings::interfaces, interface_of>, list_value<&CardSettings::interfaces>},
    {"hwmon",          payload<&CardSettings::hwmon>,             payload_value<&CardSettings::hwmon>},
    {"ptp_master",     payload<&CardSettings::ptp_master>,        payload_value<&CardSettings::ptp_master>},
    {"ptp_management", payload<&CardSettings::ptp_management>,    payload_value<&CardSettings::ptp_management>},
    {"memberships",    list<&CardSettings::memberships, membership_of>, list_value<&CardSettings::memberships>},
    {"firmware",       read_firmware,                             firmware_json},
    {"flash_ms",       number<&CardSettings::flash_ms>,           value<&CardSettings::flash_ms>},
    {"log",            text<&CardSettings::log>,                  value<&CardSettings::log>},
    {"answers",        read_answers,                              answers_json},
    {"wrapping",       read_wrapping,                             wrapping_json},
    {"interrupt_ms",   number<&CardSettings::interrupt_ms>,       value<&CardSettings::interrupt_ms>},
    {"http_faults",    list<&CardSettings::http_faults, http_fault_of>, list_value<&CardSettings::http_faults>},
    {"driver_faults",  list<&CardSettings::driver_faults, driver_fault_of>, list_value<&CardSettings::driver_faults>},
    {"removed",        boolean<&CardSettings::removed>,           value<&CardSettings::removed>},
};
// clang-format on

void read_members(const Node& node, CardSettings& card) {
    std::vector<const char*> keys;
    for (const Member& member : kMembers)
        keys.push_back(member.key);
    node.members(keys);
    for (const Member& member : kMembers) {
        if (node.has(member.key)) member.read(node.at(member.key), card);
    }
}

/// What no single member can tell.
void check_server(const Node& node, const CardSettings& card) {
    if (!card.external_server && card.tunnel_address >> 24 != 127) {
        node.at("tunnel").at("address").complain(
            "must be a loopback address (127.x.x.x) unless the server is external");
    }
    const bool tunnel = node.has("tunnel") && node.at("tunnel").has("address") && card.tunnel_port != 0;
    if (card.external_server && !tunnel)
        node.at("server").complain("needs \"tunnel\" with the address and the port of that server");
}

}  // namespace

CardSettings card_of(const Node& node) {
    CardSettings card = believable_card(node.at("id").number<uint8_t>());
    read_members(node, card);
    check_server(node, card);
    if (!node.has("interfaces")) card.interfaces = believable_interfaces(card);
    return card;
}

CardSettings changed_card(const Node& node, const CardSettings& present) {
    CardSettings changed = present;
    read_members(node, changed);
    for (const Member& member : kMembers) {
        if (member.fixed != nullptr && member.fixed(changed) != member.fixed(present))
            node.at(member.key).complain("is fixed while the card runs");
    }
    return changed;
}

Json member_json(const CardSettings& card, const std::string& key) {
    const auto* const member = std::find_if(std::begin(kMembers), std::end(kMembers),
                                            [&](const Member& row) { return row.key == key; });
    return member == std::end(kMembers) ? left_out(card) : member->write(card);
}

Json json_of(const CardSettings& card) {
    Json json = Json::object();
    for (const Member& member : kMembers) {
        Json value = member.write(card);
        if (!value.is_discarded()) json[member.key] = std::move(value);
    }
    return json;
}

}  // namespace kivsim
