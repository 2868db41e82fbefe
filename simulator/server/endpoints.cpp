#include "server/endpoints.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "card/reconfigure.h"
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
    VirtualCard& card;
    const HttpRequest& request;
    Json body;         ///< Parsed; throws on access to what is not there, which is answered with 400.
    std::string rest;  ///< Of the path, behind the row's.
};

Outcome networks(Call& call) {
    Json list = Json::array();
    for (const InterfaceSettings& entry : call.card.settings.interfaces)
        list.push_back(json_of(entry));
    return Json{{"interfaces", list}};
}

Outcome reconfig(Call& call) {
    const auto command = call.body.at("reconfig_cmd").get<std::string>();
    const std::string reason = reconfigure(call.card.settings.interfaces, command);
    if (reason.empty()) call.card.settings.log += "network reconfigured: " + command + "\n";
    return done_unless(reason);
}

/// A document that is set from outside.
template <auto document>
Outcome report(Call& call) {
    return parse_json(call.card.settings.*document);
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
    auto& all = call.card.settings.memberships;
    for (Membership& entry : memberships_in(call.body)) {
        if (std::find(all.begin(), all.end(), entry) == all.end()) all.push_back(std::move(entry));
    }
    return done();
}

Outcome igmp_leave(Call& call) {
    for (const Membership& entry : memberships_in(call.body))
        std::erase(call.card.settings.memberships, entry);
    return done();
}

Outcome igmp_list(Call& call) {
    Json list = Json::array();
    for (const Membership& entry : call.card.settings.memberships)
        list.push_back(json_of(entry));
    return Json{{"list", list}};
}

Outcome tcpdump(Call& call) {
    const auto name = call.body.at("if_name").get<std::string>();
    const auto seconds = call.body.at("second").get<uint32_t>();
    const auto& all = call.card.settings.interfaces;
    if (std::none_of(all.begin(), all.end(), [&](const auto& entry) { return entry.if_name == name; })) {
        return refused("no interface \"" + name + "\"");
    }
    call.card.settings.log += "capture on " + name + " for " + std::to_string(seconds) + " s\n";
    return done();
}

Outcome download_log(Call& call) {
    Outcome outcome = done();
    outcome.plain = call.card.settings.log;
    return outcome;
}

int64_t process_in(const Call& call) {
    uint64_t process = 0;
    if (!ConfigNode::parse(call.rest, process)) throw BadConfig("the path does not end in a process id");
    return static_cast<int64_t>(process);
}

Outcome alive_register(Call& call) {
    call.card.alive[process_in(call)] = std::chrono::steady_clock::now() + kAliveTime;
    return done();
}

Outcome alive_refresh(Call& call) {
    const auto known = call.card.alive.find(process_in(call));
    if (known == call.card.alive.end()) return refused("not registered", 404);
    known->second = std::chrono::steady_clock::now() + kAliveTime;
    return done();
}

Outcome firmware_upload(Call& call) {
    if (!call.request.file) return refused("the form has no file");
    return done_unless(call.card.firmware.upload(*call.request.file));
}

Outcome firmware_control(Call& call) {
    if (call.body.at("start").get<bool>()) {
        return done_unless(call.card.firmware.start(call.body.at("md5hush").get<std::string>()));
    }
    call.card.firmware.cancel();
    return done();
}

Outcome firmware_status(Call& call) {
    return Json(call.card.firmware.status());
}

Outcome firmware_info(Call& call) {
    return Json{{"User1", call.card.firmware.slot(0)}, {"User2", call.card.firmware.slot(1)}};
}

Outcome firmware_switch(Call& call) {
    return done_unless(call.card.firmware.switch_to(call.body.at("image").get<uint64_t>()));
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
    {"GET",    "/hps/hwmon/info",               report<&CardSettings::hwmon>},
    {"GET",    "/hps/ptp/master",               report<&CardSettings::ptp_master>},
    {"GET",    "/hps/ptp/management",           report<&CardSettings::ptp_management>},
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

/// Whether the path stands in the row, or below it.
bool is_at(const Row& row, const std::string& path) {
    const std::string_view own = row.path;
    return own.ends_with('/') ? path.starts_with(own) : path == own;
}

/// A payload that the settings give for the path stands in place of the card's own.
Outcome with_given_answer(Outcome outcome, const CardSettings& settings, const HttpRequest& request,
                          const std::string& path) {
    const auto given = settings.answers.find(path);
    if (request.method != "GET" || given == settings.answers.end()) return outcome;
    Outcome replaced = parse_json(given->second);
    if (outcome.plain)
        replaced.plain = replaced.payload.is_string() ? replaced.payload.get<std::string>() : given->second;
    return replaced;
}

Outcome run_row(VirtualCard& card, const HttpRequest& request, const std::string& path) {
    for (const Row& row : kRows) {
        if (!is_at(row, path) || request.method != row.method) continue;
        try {
            const bool has_json = !request.file && !request.body.empty();
            Call call{card, request, has_json ? parse_json(request.body) : Json(),
                      path.substr(std::string_view(row.path).size())};
            return with_given_answer(row.run(call), card.settings, request, path);
        } catch (const std::exception& error) {
            return refused(error.what());
        }
    }
    return refused("no such resource", 404);
}

/// What stands for the card's own answer when a fault keeps it from doing what it is asked.
Outcome not_carried_out(const HttpFault& fault) {
    return fault.body ? done() : refused("not carried out", 503);
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

}  // namespace

Answer answer_request(VirtualCard& card, const HttpRequest& request) {
    if (!request.path.starts_with(kBase)) return {404, text_of({{"error", "no such resource"}})};
    const std::string path = request.path.substr(kBase.size());
    const std::lock_guard lock(card.mutex);
    std::erase_if(card.alive,
                  [](const auto& entry) { return entry.second < std::chrono::steady_clock::now(); });

    CardSettings& settings = card.settings;
    const HttpFault* const fault = next_fault(settings.http_faults, [&](const HttpFault& candidate) {
        return candidate.matches(request.method, path);
    });
    Answer answer;
    answer.carried_out = fault == nullptr || fault->carried_out;
    Outcome outcome = answer.carried_out ? run_row(card, request, path) : not_carried_out(*fault);
    if (fault != nullptr && fault->patch != "null") outcome.payload.merge_patch(parse_json(fault->patch));
    answer.status = outcome.status;
    answer.body = outcome.plain ? *outcome.plain : wrapped(outcome.payload, settings.wrapping);
    if (outcome.plain) answer.content_type = "application/octet-stream";
    if (fault != nullptr) {
        answer.delay_ms = fault->delay_ms;
        answer.cut = fault->cut;
        answer.status = fault->status.value_or(answer.status);
        answer.body = fault->body.value_or(answer.body);
    }
    return answer;
}

bool is_path_of_server(const std::string& path) {
    return std::any_of(std::begin(kRows), std::end(kRows), [&](const Row& row) {
        return is_at(row, path) || (path.ends_with('/') && std::string_view(row.path).starts_with(path));
    });
}

bool is_answer_of_server(const std::string& path) {
    return std::any_of(std::begin(kRows), std::end(kRows), [&](const Row& row) {
        return path == row.path && std::string_view(row.method) == "GET";
    });
}

Json json_of(const InterfaceSettings& interface) {
    return {{"if_name", interface.if_name},
            {"ip_addr", interface.ip_addr},
            {"netmask", interface.netmask},
            {"hw_addr", interface.hw_addr}};
}

Json json_of(const Membership& membership) {
    return {{"pid", membership.pid},
            {"dst_ip_addr", membership.dst_ip_addr},
            {"if_name", membership.if_name},
            {"ssm_source_addr", membership.ssm_source_addr}};
}

}  // namespace kivsim
