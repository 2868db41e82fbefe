#include "card/CardSettings.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>

#include "base/ipText.h"
#include "card/BarMemory.h"
#include "common/ConfigNode.h"
#include "device/registers.h"
#include "driver/wire.h"

namespace kivsim {

namespace {

using Node = ConfigNode;
namespace registers = kiv::registers;
namespace wire = kiv::wire;

void take_identity(const Node& node, CardSettings& card) {
    node.members({"kind", "value", "text"});
    take(node, "kind", card.identity_kind);
    take(node, "value", card.identity);
    if (!node.has("text")) return;
    card.identity_text = node.at("text").text();
    if (card.identity_text.size() > sizeof(wire::BootConf::identity_text)) {
        node.at("text").complain("must have at most 64 characters");
    }
}

std::vector<FunctionSettings> functions_of(const Node& node) {
    std::vector<FunctionSettings> functions;
    node.each([&](const Node& item) {
        item.members({"number", "connection_type", "pci_link"});
        FunctionSettings& function = functions.emplace_back();
        function.number = item.at("number").number<uint8_t>();
        function.connection_type = item.at("connection_type").number<uint32_t>();
        if (item.has("pci_link")) item.at("pci_link").numbers(function.pci_link);
    });
    return functions;
}

std::vector<InterfaceSettings> interfaces_of(const Node& node) {
    std::vector<InterfaceSettings> interfaces;
    node.each([&](const Node& item) {
        item.members({"if_name", "ip_addr", "netmask", "hw_addr"});
        interfaces.push_back({item.at("if_name").text(), item.at("ip_addr").text(), item.at("netmask").text(),
                              item.at("hw_addr").text()});
    });
    return interfaces;
}

std::vector<DriverFault> driver_faults_of(const Node& node) {
    std::vector<DriverFault> faults;
    node.each([&](const Node& item) {
        item.members({"selector", "nth", "status", "delay_ms", "reply_size"});
        DriverFault fault;
        fault.selector = item.at("selector").number<uint32_t>();
        if (item.has("nth")) fault.nth = item.at("nth").number<uint32_t>();
        if (item.has("status")) fault.status = static_cast<int32_t>(item.at("status").number<uint32_t>());
        take(item, "delay_ms", fault.delay_ms);
        if (item.has("reply_size")) fault.reply_size = item.at("reply_size").number<uint32_t>();
        faults.push_back(fault);
    });
    return faults;
}

/// The two media interfaces and the tunnel, as a card with these addresses lists them.
std::vector<InterfaceSettings> believable_interfaces(const CardSettings& card) {
    const auto mac = [&](unsigned last) {
        char text[18];
        std::snprintf(text, sizeof text, "02:4b:56:00:%02x:%02x", unsigned{card.id}, last);
        return std::string(text);
    };
    return {{"maceth0", uint32ToIp(card.addresses[0]), "255.255.255.0", mac(0)},
            {"maceth1", uint32ToIp(card.addresses[1]), "255.255.255.0", mac(1)},
            {"mactun", uint32ToIp(card.tunnel_address), "255.255.255.252", mac(2)}};
}

void take_tunnel(const Node& node, CardSettings& card) {
    node.members({"address", "port"});
    if (node.has("address")) card.tunnel_address = node.at("address").address();
    take(node, "port", card.tunnel_port);
}

CardSettings card_of(const Node& node) {
    node.members({"id", "identity", "bus", "device", "functions", "registers", "addresses", "tunnel",
                  "interfaces", "server", "driver_faults", "http_faults", "wrapping", "flash_ms",
                  "interrupt_ms"});
    CardSettings card = believable_card(node.at("id").number<uint8_t>());
    if (node.has("identity")) take_identity(node.at("identity"), card);
    take(node, "bus", card.bus);
    take(node, "device", card.device);
    if (node.has("functions")) card.functions = functions_of(node.at("functions"));
    if (node.has("registers")) card.registers = registers_of(node.at("registers"));
    if (node.has("addresses")) {
        std::vector<uint32_t> addresses;
        node.at("addresses").each([&](const Node& item) { addresses.push_back(item.address()); });
        if (addresses.size() != 2)
            node.at("addresses").complain("must have two entries, one for each media port");
        std::copy(addresses.begin(), addresses.end(), card.addresses);
    }
    if (node.has("tunnel")) take_tunnel(node.at("tunnel"), card);
    if (node.has("server")) {
        if (node.at("server").text() != "external") node.at("server").complain("can only be \"external\"");
        card.external_server = true;
    }
    if (!card.external_server && card.tunnel_address >> 24 != 127) {
        node.at("tunnel").at("address").complain(
            "must be a loopback address (127.x.x.x) unless the server is external");
    }
    card.interfaces =
        node.has("interfaces") ? interfaces_of(node.at("interfaces")) : believable_interfaces(card);
    if (node.has("driver_faults")) card.driver_faults = driver_faults_of(node.at("driver_faults"));
    if (node.has("http_faults")) card.http_faults = http_faults_of(node.at("http_faults"));
    if (node.has("wrapping")) card.wrapping = wrapping_of(node.at("wrapping"));
    take(node, "flash_ms", card.flash_ms);
    take(node, "interrupt_ms", card.interrupt_ms);
    return card;
}

Node top_of(std::istream& file, const std::string& path) {
    try {
        return Node({std::istreambuf_iterator<char>(file), {}}, path);
    } catch (const std::exception& error) {
        throw BadConfig(path + ": " + error.what());
    }
}

}  // namespace

std::vector<RegisterSettings> registers_of(const Node& node) {
    std::vector<RegisterSettings> registers;
    node.each_member([&](const std::string& bar_text, const Node& bar_node) {
        uint64_t bar = 0;
        if (!Node::parse(bar_text, bar) || bar >= BarMemory::kBars)
            bar_node.complain("BARs are \"0\" to \"5\"");
        bar_node.each_member([&](const std::string& offset_text, const Node& value) {
            uint64_t offset = 0;
            if (!Node::parse(offset_text, offset) ||
                !BarMemory::inside(static_cast<uint32_t>(bar), offset, sizeof(uint64_t))) {
                value.complain("must be an offset inside a BAR of 16 MiB");
            }
            registers.push_back({static_cast<uint32_t>(bar), offset, value.number<uint64_t>()});
        });
    });
    return registers;
}

CardSettings believable_card(uint8_t id) {
    CardSettings card;
    card.id = id;
    card.identity_kind = 1;
    card.identity = 0x4B49560000000000u | id;
    card.identity_text = "KIV-" + std::to_string(1000 + id);
    card.bus = static_cast<uint8_t>(3 + id);
    card.functions = {{0, wire::kFunctionSt2110}, {1, wire::kFunctionHps}};
    const uint64_t serial = 0x20260000u + id;
    const std::pair<registers::Register, uint64_t> values[] = {
        {registers::kIdentity0, 0x4B49562D32313130u},
        {registers::kIdentity1, 0x0002000000010000u},
        {registers::kCardWord, 0x5354323131300000u | id},
        {registers::kIdentity3, serial},
        {registers::kReadable, 1},
        {registers::kStatus, 0x1C0},  // Both links, PTP state 0.
        // Port 0 and port 1: reference, and two counters of which 0.5 reference is full load.
        {registers::kReference0, 100'000'000},
        {registers::kCounterA0, 21'250'000},
        {registers::kCounterB0, 5'000'000},
        {registers::kReference1, 100'000'000},
        {registers::kCounterA1, 20'000'000},
        {registers::kCounterB1, 2'500'000},
        // Transmit and receive streams.
        {registers::kTxControl, 0x02000010},
        {registers::kTxReg404, 32},
        {registers::kTxReg804, 16},
        {registers::kRxControl, 0x02000010},
        {registers::kRxReg404, 32},
        {registers::kRxReg804, 16},
    };
    for (const auto& [where, value] : values)
        card.registers.push_back({where.bar, where.offset, value});
    card.addresses[0] = 0xC0A80A00u + 10 + id;
    card.addresses[1] = 0xC0A81400u + 10 + id;
    card.tunnel_address = 0x7F000001u;
    card.interfaces = believable_interfaces(card);
    return card;
}

std::vector<CardSettings> default_cards() {
    return {believable_card(1), believable_card(2)};
}

std::vector<CardSettings> load_cards(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw BadConfig(path + ": cannot be opened");
    const Node top = top_of(file, path);
    std::vector<CardSettings> cards;
    top.members({"cards"});
    std::set<uint8_t> ids;
    top.at("cards").each([&](const Node& item) {
        cards.push_back(card_of(item));
        if (!ids.insert(cards.back().id).second) item.at("id").complain("is another card's");
    });
    return cards;
}

}  // namespace kivsim
