#include "cards_file.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

namespace kivctl {

namespace {

enum class Wrapping { Object, Text, None };
constexpr const char* kWrappings[] = {"object", "text", "none"};

Json parse(const std::string& text) {
    return Json::parse(text, nullptr, false);
}

/// How this card wraps its payloads, seen at one that is an object.
Wrapping wrapping_of(const std::string& body) {
    const Json json = parse(body);
    if (!json.is_object() || !json.contains("data")) return Wrapping::None;
    return json["data"].is_string() ? Wrapping::Text : Wrapping::Object;
}

/// Nothing when the simulator would wrap it in another way.
std::optional<Json> payload_of(const Answer& answer, Wrapping wrapping) {
    Json json = parse(answer.body);
    if (wrapping != Wrapping::None) {
        if (!json.is_object() || json.size() != 1 || !json.contains("data")) return std::nullopt;
        json = Json(json["data"]);
        if (wrapping == Wrapping::Text) json = json.is_string() ? parse(json.get<std::string>()) : parse("");
    }
    if (json.is_discarded()) return std::nullopt;
    return json;
}

/// The array in the only member, when each of its entries has these texts and no more but `number`.
std::optional<Json> entries_of(const Json& payload, const char* member, const std::vector<const char*>& texts,
                               const char* number = nullptr) {
    if (!payload.is_object() || payload.size() != 1 || !payload.contains(member) ||
        !payload[member].is_array())
        return std::nullopt;
    for (const Json& entry : payload[member]) {
        const bool good =
            entry.is_object() && entry.size() == texts.size() + (number == nullptr ? 0 : 1) &&
            (number == nullptr || (entry.contains(number) && entry[number].is_number_integer())) &&
            std::all_of(texts.begin(), texts.end(),
                        [&](const char* key) { return entry.contains(key) && entry[key].is_string(); });
        if (!good) return std::nullopt;
    }
    return payload[member];
}

/// Two identifiers of 32 hexadecimal digits, one of them marked as the next to boot.
std::optional<Json> firmware_of(const Json& payload) {
    constexpr std::string_view kMark = " [Next Boot Image]";
    constexpr std::size_t kDigits = 32;
    if (!payload.is_object() || payload.size() != 2) return std::nullopt;
    Json slots = Json::array();
    std::optional<std::size_t> marked;
    for (const char* const key : {"User1", "User2"}) {
        if (!payload.contains(key) || !payload[key].is_string()) return std::nullopt;
        std::string image = payload[key].get<std::string>();
        if (image.ends_with(kMark)) {
            if (marked) return std::nullopt;
            marked = slots.size();
            image.resize(image.size() - kMark.size());
        }
        if (image.size() != kDigits || image.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            return std::nullopt;
        slots.push_back(image);
    }
    if (!marked) return std::nullopt;
    return Json{{"slots", slots}, {"next_boot_slot", *marked}};
}

/// Puts the payload into the member that the simulator has for it; false when none can hold it.
bool put_into_member(Json& card, const std::string& path, const Json& payload) {
    constexpr std::pair<const char*, const char*> kDocuments[] = {
        {kSensors, "hwmon"}, {kPtpMaster, "ptp_master"}, {kPtpManagement, "ptp_management"}};
    for (const auto& [at, member] : kDocuments) {
        if (path == at) card[member] = payload;
        if (path == at) return true;
    }
    std::optional<Json> value;
    if (path == kNetworks &&
        (value = entries_of(payload, "interfaces", {"if_name", "ip_addr", "netmask", "hw_addr"})))
        card["interfaces"] = *value;
    if (path == kMemberships &&
        (value = entries_of(payload, "list", {"dst_ip_addr", "if_name", "ssm_source_addr"}, "pid")))
        card["memberships"] = *value;
    if (path == kFirmware && (value = firmware_of(payload))) card["firmware"].update(*value);
    if (path == kFirmwareState && payload.is_string()) {
        value = payload;
        if (payload != "idle") card["firmware"]["status"] = payload;  // Or no write would ever end it.
    }
    return value.has_value();
}

void put_answer(Json& card, const std::string& path, const Answer& answer, Wrapping wrapping) {
    Json fault{{"path", path}, {"method", "GET"}};
    if (answer.status == 0) {
        fault["cut"] = "before";
    } else if (answer.status != 200) {
        fault["status"] = answer.status;
        fault["body"] = answer.body;
    } else if (path == kLog) {
        card["log"] = answer.body;
        return;
    } else if (const std::optional<Json> payload = payload_of(answer, wrapping)) {
        if (!put_into_member(card, path, *payload)) card["answers"][path] = *payload;
        return;
    } else {
        fault["body"] = answer.body;
    }
    card["http_faults"].push_back(fault);
}

Json registers_of(const Json& document) {
    Json bars = Json::object();
    for (const Json& row : document.at("registers")) {
        const std::string bar = std::to_string(row.at("bar").get<unsigned>());
        if (row.at("value").is_string()) bars[bar][row.at("offset").get<std::string>()] = row["value"];
    }
    return bars;
}

}  // namespace

Json cards_file_entry(const Json& driver, const Json& registers,
                      const std::map<std::string, Answer>& answers) {
    const Json& first = driver.at("functions").at(0);
    Json card{
        {"id", driver.at("card")},
        {"identity",
         {{"kind", first.at("identity_kind")},
          {"value", first.at("identity")},
          {"text", first.at("identity_text")}}},
        {"bus", first.at("bus")},
        {"device", first.at("device")},
        {"functions", Json::array()},
        {"pci_link", {driver.at("pci_link").at("width"), driver.at("pci_link").at("generation")}},
        {"driver_version", driver.at("driver_version")},
        {"registers", registers_of(registers)},
        {"addresses", {driver.at("ports").at(0).at("ip_address"), driver.at("ports").at(1).at("ip_address")}},
        {"resources", driver.at("resources")},
        {"tunnel", {{"address", "127.0.0.1"}, {"port", 0}}}};  // Where a simulator can serve it.
    for (const Json& function : driver.at("functions"))
        card["functions"].push_back(
            {{"number", function.at("function")}, {"connection_type", function.at("function_id")}});
    const auto networks = answers.find(kNetworks);
    const Wrapping wrapping =
        networks == answers.end() ? Wrapping::Object : wrapping_of(networks->second.body);
    card["wrapping"] = kWrappings[static_cast<int>(wrapping)];
    for (const auto& [path, answer] : answers)
        put_answer(card, path, answer, wrapping);
    return card;
}

}  // namespace kivctl
