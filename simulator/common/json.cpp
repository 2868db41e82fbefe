#include "common/json.h"

#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kivsim {

Json parse_json(const std::string& text) {
    constexpr int kMostLevels = 64;
    std::array<int, kMostLevels + 2> members{};  // Of the object that is open at each level.
    return Json::parse(text, [&](int level, Json::parse_event_t event, const Json&) {
        if (level > kMostLevels) throw std::runtime_error("more than 64 levels of JSON");
        const auto at = static_cast<std::size_t>(level);
        if (event == Json::parse_event_t::object_start) members[at + 1] = 0;
        if (event == Json::parse_event_t::key && ++members[at] > kMostMembers)
            throw std::runtime_error("more than " + std::to_string(kMostMembers) +
                                     " members in one JSON object");
        return true;
    });
}

std::string text_of(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string quoted(const std::string& text) {
    return text_of(text);
}

}  // namespace kivsim
