#include "support/Json.h"

Json parsed(const std::string& text) {
    return Json::parse(text);
}

std::string text_of(const Json& json, int indent) {
    return json.dump(indent);
}

void nlohmann::PrintTo(const ordered_json& json, std::ostream* out) {
    *out << text_of(json);
}
