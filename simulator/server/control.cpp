#include "server/control.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

#include "common/ConfigNode.h"
#include "common/hex.h"
#include "device/registers.h"

namespace kivsim {

namespace {

namespace registers = kiv::registers;

Answer json_answer(int status, const Json& json) {
    return {status, text_of(json, 4) + "\n"};
}

Json registrations(const ManagementState& state) {
    Json list = Json::array();
    for (const auto& [pid, end] : state.alive) {
        if (end >= std::chrono::steady_clock::now()) list.push_back(pid);
    }
    return list;
}

/// What the driver keeps for the card.
Json driver_description(const DriverState& driver) {
    Json connections = Json::array();
    for (const auto& [number, connection] : driver.connections) {
        connections.push_back({{"number", number},
                               {"function", connection.function},
                               {"announced", connection.announced},
                               {"messages", connection.takes_messages},
                               {"interrupts", connection.interrupts},
                               {"process_data", connection.process_data}});
    }
    Json memory = Json::array();
    for (const MemoryBlock& block : driver.blocks)
        memory.push_back({{"id", block.id}, {"elm_size", block.elm_size}, {"depth", block.depth}});
    const auto descriptors = std::as_bytes(std::span(driver.anc_descriptors));
    return {{"connections", connections},
            {"memory", memory},
            {"anc",
             {{"direction", driver.anc_direction},
              {"descriptors", hex(descriptors)},
              {"control", {driver.anc_control.a, driver.anc_control.b, driver.anc_control.c}}}}};
}

Json description(VirtualCard& card) {
    const std::lock_guard lock(card.mutex);
    return {{"id", card.settings().id},
            {"server", card.server_address()},
            {"alive", registrations(card.management)},
            {"faults", card.management.faults.size()},
            {"driver", driver_description(card.driver)}};
}

/// The first bytes of an element: "ID/INDEX" names it.
Answer memory_answer(VirtualCard& card, std::string_view name) {
    const std::size_t slash = name.find('/');
    uint64_t id = 0;
    uint64_t index = 0;
    const std::lock_guard lock(card.mutex);
    if (slash == std::string_view::npos || !ConfigNode::parse(std::string(name.substr(0, slash)), id) ||
        !ConfigNode::parse(std::string(name.substr(slash + 1)), index) || id > 0xFFFFFFFFu) {
        return json_answer(400, {{"error", "memory is named ID/INDEX"}});
    }
    const MemoryBlock* const block = card.driver.block(static_cast<uint32_t>(id), 0);
    if (block == nullptr || index >= block->depth) return json_answer(404, {{"error", "no such memory"}});
    std::byte bytes[64];
    block->memory.read(index * block->element_size(), bytes, sizeof bytes);
    return json_answer(200, hex(bytes));
}

/// Messages for the programs that have registered.
void post_messages(VirtualCard& card, const ConfigNode& node) {
    node.members({"arguments", "count", "rate"});
    MessageStream stream;
    node.at("arguments").each([&](const ConfigNode& item) {
        stream.arguments.push_back(item.number<uint64_t>());
    });
    if (stream.arguments.size() == 2 || stream.arguments.size() > 16)
        node.at("arguments").complain("must be none, one, or 3 to 16");
    take(node, "count", stream.left);
    uint32_t rate = 0;
    take(node, "rate", rate);
    if (rate != 0) stream.pause = std::chrono::nanoseconds(1'000'000'000 / rate);
    const std::lock_guard lock(card.mutex);
    card.driver.streams.push_back(stream);
    if (card.wake_driver) card.wake_driver();
}

Json descriptions(const std::vector<std::shared_ptr<VirtualCard>>& cards) {
    Json list = Json::array();
    for (const auto& card : cards)
        list.push_back(description(*card));
    return list;
}

/// Puts links into bits 6 and 7 of the status register, and the PTP state, 0, 1 or 3, into bits 8, 9 and 10,
/// of which null sets none. True when one of the two is given.
bool change_status(const ConfigNode& node, uint64_t& status) {
    const auto put = [&](unsigned bit, bool on) {
        status = on ? status | uint64_t{1} << bit : status & ~(uint64_t{1} << bit);
    };
    if (node.has("links")) {
        const Json& links = node.at("links").json();
        if (!links.is_array() || links.size() != 2 || !links[0].is_boolean() || !links[1].is_boolean())
            node.at("links").complain("must be two of true and false");
        put(registers::kStatusLink0, links[0].get<bool>());
        put(registers::kStatusLink1, links[1].get<bool>());
    }
    if (node.has("ptp_state")) {
        const Json& state = node.at("ptp_state").json();
        if (!state.is_null() && state != 0 && state != 1 && state != 3)
            node.at("ptp_state").complain("must be 0, 1, 3 or null");
        put(registers::kStatusPtp0, state == 0);
        put(registers::kStatusPtp1, state == 1);
        put(registers::kStatusPtp3, state == 3);
    }
    return node.has("links") || node.has("ptp_state");
}

/// Lanes and generation: for all PCI functions, or by their numbers.
void change_links(const ConfigNode& node, std::map<uint8_t, kiv::wire::PciLink>& links) {
    if (node.json().is_array()) {
        for (auto& [function, link] : links)
            node.numbers(link.value);
        return;
    }
    node.each_member([&](const std::string& number, const ConfigNode& item) {
        uint64_t function = 0;
        const bool known = ConfigNode::parse(number, function) && function <= 0xFF &&
                           links.contains(static_cast<uint8_t>(function));
        if (!known) item.complain("is no PCI function of the card");
        item.numbers(links[static_cast<uint8_t>(function)].value);
    });
}

/// The members of a PATCH replace what the card has: all of them, or none when one is bad.
void change(VirtualCard& card, const ConfigNode& node) {
    node.members({"wrapping", "hwmon", "ptp_master", "ptp_management", "links", "ptp_state", "registers",
                  "pci_link", "resources", "removed"});
    const std::lock_guard lock(card.mutex);
    std::vector<std::function<void()>> changes;
    const auto replace = [&](const char* key, auto& target, auto read) {
        if (node.has(key)) changes.push_back([&target, value = read(node.at(key))] { target = value; });
    };
    const auto payload = [](const ConfigNode& given) { return text_of(given.json()); };
    ManagementState& state = card.management;
    replace("wrapping", state.wrapping, wrapping_of);
    replace("hwmon", state.hwmon, payload);
    replace("ptp_master", state.ptp_master, payload);
    replace("ptp_management", state.ptp_management, payload);
    replace("removed", card.removed, [](const ConfigNode& given) {
        if (!given.json().is_boolean()) given.complain("must be true or false");
        return given.json().get<bool>();
    });
    if (node.has("registers"))
        changes.emplace_back([&, given = registers_of(node.at("registers"))] { card.set_registers(given); });
    auto links = card.driver.pci_links;
    auto use = card.driver.use_resource;
    uint64_t status = 0;
    card.bars.read(registers::kStatus.bar, registers::kStatus.offset, status);
    if (node.has("pci_link")) change_links(node.at("pci_link"), links);
    if (node.has("resources")) {
        const ConfigNode resources = node.at("resources");
        resources.members({"tx", "rx"});
        if (resources.has("tx")) resources.at("tx").numbers(use.tx);
        if (resources.has("rx")) resources.at("rx").numbers(use.rx);
    }
    const bool new_status = change_status(node, status);

    for (const auto& apply : changes)
        apply();
    card.driver.pci_links = links;
    card.driver.use_resource = use;
    if (new_status) card.bars.write(registers::kStatus.bar, registers::kStatus.offset, status);
}

Answer answer_for(VirtualCard& card, const std::string& what, const HttpRequest& request) {
    if (what.empty() && request.method == "GET") return json_answer(200, description(card));
    if (what.empty() && request.method == "PATCH") {
        change(card, ConfigNode(request.body, "request"));
        return json_answer(200, "ok");
    }
    if (what.starts_with("/memory/") && request.method == "GET") return memory_answer(card, what.substr(8));
    if (what == "/messages" && request.method == "POST") {
        post_messages(card, ConfigNode(request.body, "request"));
        return json_answer(200, "ok");
    }
    if (what == "/faults" && request.method == "POST") {
        const HttpFault fault = http_fault_of(ConfigNode(request.body, "request"));
        const std::lock_guard lock(card.mutex);
        card.management.faults.push_back(fault);
        return json_answer(200, "ok");
    }
    if (what == "/faults" && request.method == "DELETE") {
        const std::lock_guard lock(card.mutex);
        card.management.faults.clear();
        return json_answer(200, "ok");
    }
    return json_answer(404, {{"error", "no such resource"}});
}

}  // namespace

Answer answer_control(const std::vector<std::shared_ptr<VirtualCard>>& cards, const HttpRequest& request) {
    constexpr std::string_view kCards = "/cards";
    try {
        if (request.path == kCards && request.method == "GET") return json_answer(200, descriptions(cards));
        if (request.path.starts_with("/cards/")) {
            const char* const first = request.path.data() + kCards.size() + 1;
            const char* const last = request.path.data() + request.path.size();
            unsigned id = 0;
            const auto [end, error] = std::from_chars(first, last, id);
            for (const auto& card : cards) {
                if (error == std::errc{} && card->settings().id == id) {
                    return answer_for(*card, std::string(end, last), request);
                }
            }
        }
        return json_answer(404, {{"error", "no such resource"}});
    } catch (const std::exception& error) {
        return json_answer(400, {{"error", error.what()}});
    }
}

}  // namespace kivsim
