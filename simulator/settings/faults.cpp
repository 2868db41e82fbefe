#include "settings/faults.h"

#include <nlohmann/json.hpp>

#include "common/hex.h"
#include "driver/selectors.h"
#include "server/endpoints.h"

namespace kivsim {

namespace {

template <typename Number>
void take(const ConfigNode& object, const char* key, std::optional<Number>& value) {
    if (object.has(key)) value = object.at(key).number<uint32_t>();
}

template <typename Value>
void put(Json& json, const char* key, const std::optional<Value>& value) {
    if (value) json[key] = *value;
}

Cut cut_of(const ConfigNode& node) {
    const std::string cut = node.text();
    if (cut != "before" && cut != "inside") node.complain("must be \"before\" or \"inside\"");
    return cut == "before" ? Cut::BeforeAnswer : Cut::InsideBody;
}

/// A request that is not carried out has no answer of its own.
void check_carried_out(const ConfigNode& node, const HttpFault& fault) {
    if (fault.carried_out) return;
    if (fault.patch != "null") node.at("carried_out").complain("must be true for a fault with \"patch\"");
    if (!fault.status && !fault.body && fault.cut == Cut::Nowhere)
        node.at("carried_out").complain("can only be false with \"status\", \"body\" or \"cut\"");
}

}  // namespace

DriverFault driver_fault_of(const ConfigNode& node) {
    node.members({"selector", "nth", "status", "delay_ms", "reply_size"});
    DriverFault fault;
    fault.selector = node.at("selector").number<uint32_t>();
    if (!is_selector(fault.selector)) node.at("selector").complain("is no selector of the driver");
    take(node, "nth", fault.nth);
    if (node.has("status")) fault.status = static_cast<int32_t>(node.at("status").number<uint32_t>());
    take(node, "delay_ms", fault.delay_ms);
    take(node, "reply_size", fault.reply_size);
    return fault;
}

Json json_of(const DriverFault& fault) {
    Json json{{"selector", fault.selector}};
    put(json, "nth", fault.nth);
    if (fault.status != 0) json["status"] = hex_number(static_cast<uint32_t>(fault.status));
    if (fault.delay_ms != 0) json["delay_ms"] = fault.delay_ms;
    put(json, "reply_size", fault.reply_size);
    return json;
}

HttpFault http_fault_of(const ConfigNode& node) {
    node.members({"path", "method", "nth", "delay_ms", "cut", "status", "body", "patch", "carried_out"});
    HttpFault fault;
    fault.path = node.at("path").text();
    if (!is_path_of_server(fault.path)) node.at("path").complain("is no path of the management server");
    if (node.has("method")) fault.method = node.at("method").text();
    take(node, "nth", fault.nth);
    take(node, "delay_ms", fault.delay_ms);
    if (node.has("cut")) fault.cut = cut_of(node.at("cut"));
    if (node.has("status")) fault.status = node.at("status").number<uint16_t>();
    if (node.has("body")) fault.body = node.at("body").text();
    if (node.has("patch")) fault.patch = text_of(node.at("patch").json());
    if (node.has("carried_out")) fault.carried_out = node.at("carried_out").boolean();
    check_carried_out(node, fault);
    return fault;
}

Json json_of(const HttpFault& fault) {
    Json json{{"path", fault.path}};
    if (!fault.method.empty()) json["method"] = fault.method;
    put(json, "nth", fault.nth);
    if (fault.delay_ms != 0) json["delay_ms"] = fault.delay_ms;
    if (fault.cut != Cut::Nowhere) json["cut"] = fault.cut == Cut::BeforeAnswer ? "before" : "inside";
    put(json, "status", fault.status);
    put(json, "body", fault.body);
    if (fault.patch != "null") json["patch"] = parse_json(fault.patch);
    json["carried_out"] = fault.carried_out;
    return json;
}

}  // namespace kivsim
