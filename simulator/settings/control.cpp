#include "settings/control.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "common/ConfigNode.h"
#include "common/hex.h"
#include "settings/changes.h"
#include "settings/faults.h"
#include "settings/members.h"
#include "settings/parts.h"

namespace kivsim {

namespace {

Answer json_answer(int status, const Json& json) {
    return {status, text_of(json, 4) + "\n"};
}

using Cards = std::vector<std::shared_ptr<VirtualCard>>;

Json registrations(const VirtualCard& card) {
    Json list = Json::array();
    for (const auto& [pid, end] : card.alive) {
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
    return {{"connections", connections}, {"memory", memory}};
}

template <typename Fault>
Json with_hits(const std::vector<Fault>& faults) {
    Json list = Json::array();
    for (const Fault& fault : faults) {
        list.push_back(json_of(fault));
        list.back()["hits"] = fault.count.hits;
    }
    return list;
}

Json description(VirtualCard& card) {
    const std::lock_guard lock(card.mutex);
    Json driver = driver_description(card.driver);
    driver["anc"] = anc_json(card.settings);
    return {{"id", card.id},
            {"server", card.server_address()},
            {"alive", registrations(card)},
            {"http_faults", with_hits(card.settings.http_faults)},
            {"driver_faults", with_hits(card.settings.driver_faults)},
            {"driver", driver}};
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

Json settings_of(VirtualCard& card) {
    const std::lock_guard lock(card.mutex);
    return json_of(card.present());
}

struct Call {
    VirtualCard& card;
    const HttpRequest& request;
    std::string rest;  ///< Of the path, behind the row's.

    ConfigNode body() const { return ConfigNode(request.body, "request"); }
};

Answer done() {
    return json_answer(200, "ok");
}

template <auto faults>
Answer get_faults(const Call& call) {
    const std::lock_guard lock(call.card.mutex);
    return json_answer(200, with_hits(call.card.settings.*faults));
}

template <auto faults, auto fault_of>
Answer add_fault(const Call& call) {
    auto fault = fault_of(call.body());
    const std::lock_guard lock(call.card.mutex);
    (call.card.settings.*faults).push_back(std::move(fault));
    return done();
}

template <auto faults>
Answer remove_faults(const Call& call) {
    const std::lock_guard lock(call.card.mutex);
    (call.card.settings.*faults).clear();
    return done();
}

Answer get_card(const Call& call) {
    return json_answer(200, description(call.card));
}

Answer patch_card(const Call& call) {
    const ConfigNode body = call.body();
    const std::lock_guard lock(call.card.mutex);
    change(call.card, body);
    return done();
}

Answer get_settings(const Call& call) {
    return json_answer(200, settings_of(call.card));
}

Answer get_memory(const Call& call) {
    return memory_answer(call.card, call.rest);
}

Answer post_messages(const Call& call) {
    const ConfigNode body = call.body();
    const std::lock_guard lock(call.card.mutex);
    send_messages(call.card, body);
    return done();
}

struct Row {
    const char* method;
    const char* path;  ///< Behind "/cards/ID"; one that ends in "/" takes all below it.
    Answer (*run)(const Call&);
};

// clang-format off
constexpr Row kRows[] = {
    {"GET",    "",               get_card},
    {"PATCH",  "",               patch_card},
    {"GET",    "/settings",      get_settings},
    {"GET",    "/memory/",       get_memory},
    {"POST",   "/messages",      post_messages},
    {"GET",    "/http_faults",   get_faults<&CardSettings::http_faults>},
    {"POST",   "/http_faults",   add_fault<&CardSettings::http_faults, http_fault_of>},
    {"DELETE", "/http_faults",   remove_faults<&CardSettings::http_faults>},
    {"GET",    "/driver_faults", get_faults<&CardSettings::driver_faults>},
    {"POST",   "/driver_faults", add_fault<&CardSettings::driver_faults, driver_fault_of>},
    {"DELETE", "/driver_faults", remove_faults<&CardSettings::driver_faults>},
};
// clang-format on

Answer no_such_resource() {
    return json_answer(404, {{"error", "no such resource"}});
}

Answer answer_for(VirtualCard& card, const std::string& path, const HttpRequest& request) {
    for (const Row& row : kRows) {
        const std::string_view own = row.path;
        const bool same = own.ends_with('/') ? path.starts_with(own) : path == own;
        if (same && request.method == row.method) return row.run({card, request, path.substr(own.size())});
    }
    return no_such_resource();
}

template <typename Describe>
Json each_card(const Cards& cards, const Describe& describe) {
    Json list = Json::array();
    for (const auto& card : cards)
        list.push_back(describe(*card));
    return list;
}

Answer answer_path(const Cards& cards, const HttpRequest& request) {
    constexpr std::string_view kCards = "/cards";
    if (request.method == "GET" && request.path == kCards)
        return json_answer(200, each_card(cards, description));
    if (request.method == "GET" && request.path == "/settings")
        return json_answer(200, {{"cards", each_card(cards, settings_of)}});
    if (!request.path.starts_with("/cards/")) return no_such_resource();
    const char* const first = request.path.data() + kCards.size() + 1;
    const char* const last = request.path.data() + request.path.size();
    unsigned id = 0;
    const auto [end, error] = std::from_chars(first, last, id);
    for (const auto& card : cards) {
        if (error == std::errc{} && card->id == id) return answer_for(*card, std::string(end, last), request);
    }
    return no_such_resource();
}

}  // namespace

Answer answer_control(const Cards& cards, const HttpRequest& request) {
    try {
        return answer_path(cards, request);
    } catch (const std::exception& error) {
        return json_answer(400, {{"error", error.what()}});
    }
}

}  // namespace kivsim
