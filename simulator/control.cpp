#include "control.h"

#include <charconv>

namespace kivsim {

namespace {

Answer json_answer(int status, const Json& json) {
    return {status, json.dump(4) + "\n"};
}

Json registrations(const ManagementState& state) {
    Json list = Json::array();
    for (const auto& [pid, end] : state.alive) {
        if (end >= std::chrono::steady_clock::now()) list.push_back(pid);
    }
    return list;
}

Json description(VirtualCard& card) {
    const std::lock_guard lock(card.mutex);
    return {{"id", card.settings().id},
            {"server", card.server_address()},
            {"alive", registrations(card.management)},
            {"faults", card.management.faults.size()}};
}

Json descriptions(const std::vector<std::shared_ptr<VirtualCard>>& cards) {
    Json list = Json::array();
    for (const auto& card : cards)
        list.push_back(description(*card));
    return list;
}

/// The members of a PATCH replace what the card's server reports.
void change(VirtualCard& card, const ConfigNode& node) {
    node.members({"wrapping", "hwmon", "ptp_master", "ptp_management"});
    const std::lock_guard lock(card.mutex);
    ManagementState& state = card.management;
    if (node.has("wrapping")) state.wrapping = wrapping_of(node.at("wrapping"));
    if (node.has("hwmon")) state.hwmon = node.at("hwmon").json();
    if (node.has("ptp_master")) state.ptp_master = node.at("ptp_master").json();
    if (node.has("ptp_management")) state.ptp_management = node.at("ptp_management").json();
}

Answer answer_for(VirtualCard& card, const std::string& what, const HttpRequest& request) {
    if (what.empty() && request.method == "GET") return json_answer(200, description(card));
    if (what.empty() && request.method == "PATCH") {
        change(card, ConfigNode(Json::parse(request.body), "request: "));
        return json_answer(200, "ok");
    }
    if (what == "/faults" && request.method == "POST") {
        const HttpFault fault = http_fault_of(ConfigNode(Json::parse(request.body), "request: "));
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
