#include "common/json.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kivsim {

Json parse_json(const std::string& text) {
    constexpr int kMostLevels = 64;
    return Json::parse(text, [](int level, Json::parse_event_t, const Json&) {
        if (level > kMostLevels) throw std::runtime_error("more than 64 levels of JSON");
        return true;
    });
}

std::string text_of(const Json& json, int indent) {
    return json.dump(indent);
}

std::string quoted(const std::string& text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kivsim
