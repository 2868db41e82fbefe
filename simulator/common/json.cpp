#include "common/json.h"

#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kivsim {

Json parse_json(const std::string& text) {
    constexpr int kMostLevels = 64;
    std::array<int, kMostLevels + 2>
        entries{};  // Members, or objects and arrays, of what is open at a level.
    std::array<bool, kMostLevels + 2> is_array{};
    return Json::parse(text, [&](int level, Json::parse_event_t event, const Json&) {
        if (level > kMostLevels) throw std::runtime_error("more than 64 levels of JSON");
        const auto at = static_cast<std::size_t>(level);
        const bool array = event == Json::parse_event_t::array_start;
        const bool begins = array || event == Json::parse_event_t::object_start;
        const bool counts = is_array[at] ? begins : event == Json::parse_event_t::key;
        if (counts && ++entries[at] > kMostMembers)
            throw std::runtime_error(
                "more than " + std::to_string(kMostMembers) +
                (is_array[at] ? " objects in one JSON array" : " members in one JSON object"));
        if (begins) {
            entries[at + 1] = 0;
            is_array[at + 1] = array;
        }
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
