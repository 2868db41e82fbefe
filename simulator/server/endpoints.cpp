#include "server/endpoints.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/ConfigNode.h"

namespace kivsim {

namespace {

constexpr std::string_view kBase = "/api/v1.0";
constexpr std::chrono::seconds kAliveTime{10};

/// What an endpoint gives: a payload, or a refusal with its reason.
struct Outcome {
    // NOLINTNEXTLINE(google-explicit-constructor): an endpoint returns its payload as it is.
    Outcome(Json given, int code = 200) : payload(std::move(given)), status(code) {}

    Json payload;
    int status;
    std::optional<std::string> plain{};  ///< A body that is no JSON, sent as it stands.
};

Outcome done() {
    return Json("ok");
}

Outcome refused(const std::string& reason, int code = 400) {
    return {Json{{"error", reason}}, code};
}

Outcome done_unless(const std::string& reason) {
    return reason.empty() ? done() : refused(reason);
}

struct Call {
    ManagementState& state;
    const HttpRequest& request;
    Json body;         ///< Parsed; throws on access to what is not there, which is answered with 400.
    std::string rest;  ///< Of the path, behind the row's.
};

Outcome networks(Call& call) {
    Json list = Json::array();
    for (const InterfaceSettings& entry : call.state.interfaces) {
        list.push_back({{"if_name", entry.if_name},
                        {"ip_addr", entry.ip_addr},
                        {"netmask", entry.netmask},
                        {"hw_addr", entry.hw_addr}});
    }
    return Json{{"interfaces", list}};
}

Outcome reconfig(Call& call) {
    const auto command = call.body.at("reconfig_cmd").get<std::string>();
    const std::string reason = reconfigure(call.state.interfaces, command);
    if (reason.empty()) call.state.log += "network reconfigured: " + command + "\n";
    return done_unless(reason);
}

/// A document that is set from outside.
template <auto document>
Outcome report(Call& call) {
    return parse_json(call.state.*document);
}

std::vector<Membership> memberships_in(const Json& body) {
    std::vector<Membership> memberships;
    for (const Json& entry : body.at("settings")) {
        memberships.push_back({entry.at("pid").get<int64_t>(), entry.at("dst_ip_addr").get<std::string>(),
                               entry.at("if_name").get<std::string>(),
                               entry.at("ssm_source_addr").get<std::string>()});
    }
    return memberships;
}

Outcome igmp_join(Call& call) {
    auto& all = call.state.memberships;
    for (Membership& entry : memberships_in(call.body)) {
        if (std::find(all.begin(), all.end(), entry) == all.end()) all.push_back(std::move(entry));
    }
    return done();
}

Outcome igmp_leave(Call& call) {
    for (const Membership& entry : memberships_in(call.body))
        std::erase(call.state.memberships, entry);
    return done();
}

Outcome igmp_list(Call& call) {
    Json list = Json::array();
    for (const Membership& entry : call.state.memberships) {
        list.push_back({{"pid", entry.pid},
                        {"dst_ip_addr", entry.dst_ip_addr},
                        {"if_name", entry.if_name},
                        {"ssm_source_addr", entry.ssm_source_addr}});
    }
    return Json{{"list", list}};
}

Outcome tcpdump(Call& call) {
    const auto name = call.body.at("if_name").get<std::string>();
    const auto seconds = call.body.at("second").get<uint32_t>();
    const auto& all = call.state.interfaces;
    if (std::none_of(all.begin(), all.end(), [&](const auto& entry) { return entry.if_name == name; })) {
        return refused("no interface \"" + name + "\"");
    }
    call.state.log += "capture on " + name + " for " + std::to_string(seconds) + " s\n";
    return done();
}

Outcome download_log(Call& call) {
    Outcome outcome = done();
    outcome.plain = call.state.log;
    return outcome;
}

int64_t process_in(const Call& call) {
    uint64_t process = 0;
    if (!ConfigNode::parse(call.rest, process)) throw BadConfig("the path does not end in a process id");
    return static_cast<int64_t>(process);
}

Outcome alive_register(Call& call) {
    call.state.alive[process_in(call)] = std::chrono::steady_clock::now() + kAliveTime;
    return done();
}

Outcome alive_refresh(Call& call) {
    const auto known = call.state.alive.find(process_in(call));
    if (known == call.state.alive.end()) return refused("not registered", 404);
    known->second = std::chrono::steady_clock::now() + kAliveTime;
    return done();
}

Outcome firmware_upload(Call& call) {
    if (!call.request.file) return refused("the form has no file");
    return done_unless(call.state.firmware.upload(*call.request.file));
}

Outcome firmware_control(Call& call) {
    if (call.body.at("start").get<bool>()) {
        return done_unless(call.state.firmware.start(call.body.at("md5hush").get<std::string>()));
    }
    call.state.firmware.cancel();
    return done();
}

Outcome firmware_status(Call& call) {
    return Json(call.state.firmware.status());
}

Outcome firmware_info(Call& call) {
    return Json{{"User1", call.state.firmware.slot(0)}, {"User2", call.state.firmware.slot(1)}};
}

Outcome firmware_switch(Call& call) {
    return done_unless(call.state.firmware.switch_to(call.body.at("image").get<uint64_t>()));
}

struct Row {
    const char* method;
    const char* path;  ///< Below the base path; one that ends in "/" takes all below it.
    Outcome (*run)(Call&);
};

// clang-format off
constexpr Row kRows[] = {
    {"GET",    "/hps/info/networks",            networks},
    {"POST",   "/hps/control/network/reconfig", reconfig},
    {"GET",    "/hps/hwmon/info",               report<&ManagementState::hwmon>},
    {"GET",    "/hps/ptp/master",               report<&ManagementState::ptp_master>},
    {"GET",    "/hps/ptp/management",           report<&ManagementState::ptp_management>},
    {"POST",   "/hps/control/igmp",             igmp_join},
    {"DELETE", "/hps/control/igmp",             igmp_leave},
    {"GET",    "/hps/control/igmp",             igmp_list},
    {"POST",   "/hps/control/tcpdump",          tcpdump},
    {"GET",    "/hps/download/log",             download_log},
    {"POST",   "/alive/",                       alive_register},
    {"PATCH",  "/alive/",                       alive_refresh},
    {"POST",   "/hps/firmware/upload",          firmware_upload},
    {"PATCH",  "/hps/firmware/control",         firmware_control},
    {"GET",    "/hps/firmware/status",          firmware_status},
    {"GET",    "/hps/firmware/info",            firmware_info},
    {"PATCH",  "/hps/firmware/switch",          firmware_switch},
};
// clang-format on

Outcome run_row(ManagementState& state, const HttpRequest& request, const std::string& path) {
    for (const Row& row : kRows) {
        const std::string_view own = row.path;
        const bool same = own.ends_with('/') ? path.starts_with(own) : path == own;
        if (!same || request.method != row.method) continue;
        try {
            const bool has_json = !request.file && !request.body.empty();
            Call call{state, request, has_json ? parse_json(request.body) : Json(), path.substr(own.size())};
            return row.run(call);
        } catch (const std::exception& error) {
            return refused(error.what());
        }
    }
    return refused("no such resource", 404);
}

std::string wrapped(const Json& payload, Wrapping wrapping) {
    switch (wrapping) {
        case Wrapping::Object:
            return text_of({{"data", payload}});
        case Wrapping::Text:
            return text_of({{"data", text_of(payload)}});
        case Wrapping::None:
            break;
    }
    return text_of(payload);
}

/// The fault that this request meets, if any; counts the request at all that match.
std::optional<HttpFault> fault_for(std::vector<HttpFault>& faults, const std::string& method,
                                   const std::string& path) {
    std::optional<HttpFault> met;
    for (HttpFault& fault : faults) {
        if (!fault.matches(method, path)) continue;
        ++fault.seen;
        if (!met && (!fault.nth || *fault.nth == fault.seen)) met = fault;
    }
    return met;
}

}  // namespace

Answer answer_request(VirtualCard& card, const HttpRequest& request) {
    if (!request.path.starts_with(kBase)) return {404, text_of({{"error", "no such resource"}})};
    const std::string path = request.path.substr(kBase.size());
    const std::lock_guard lock(card.mutex);
    ManagementState& state = card.management;
    std::erase_if(state.alive,
                  [](const auto& entry) { return entry.second < std::chrono::steady_clock::now(); });

    const std::optional<HttpFault> fault = fault_for(state.faults, request.method, path);
    Outcome outcome = run_row(state, request, path);
    if (fault && fault->patch != "null") outcome.payload.merge_patch(parse_json(fault->patch));
    Answer answer;
    answer.status = outcome.status;
    answer.body = outcome.plain ? *outcome.plain : wrapped(outcome.payload, state.wrapping);
    if (outcome.plain) answer.content_type = "application/octet-stream";
    if (fault) {
        answer.delay_ms = fault->delay_ms;
        answer.cut = fault->cut;
        answer.status = fault->status.value_or(answer.status);
        answer.body = fault->body.value_or(answer.body);
    }
    return answer;
}

}  // namespace kivsim
