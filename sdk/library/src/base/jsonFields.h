/// Records as rows of JSON keys and members.
#ifndef KIV_JSON_FIELDS_H
#define KIV_JSON_FIELDS_H

#include <algorithm>
#include <cstdint>
#include <limits>
#include <tuple>
#include <utility>

#include <kiv/kiv_json.h>

namespace kiv::json {

using Json = nlohmann::ordered_json;

/// A JSON key and the member that it fills. A record's rows are read and written in their order.
template <typename Record, typename Value>
struct Field {
    const char* key;
    Value Record::*member;
};
template <typename Record, typename Value>
Field(const char*, Value Record::*) -> Field<Record, Value>;

/// The JSON library's conversion. A floating value is cut off toward zero; beyond the range of the type,
/// which no C++ conversion takes, it becomes the nearest value.
template <typename Value>
void read(const Json& json, Value& value) {
    if constexpr (std::is_integral_v<Value> && !std::is_same_v<Value, bool>) {
        if (json.is_number_float()) {
            using Limits = std::numeric_limits<Value>;
            const double number = json.get<double>();
            if (number <= static_cast<double>(Limits::min())) {
                value = Limits::min();
            } else if (number >= static_cast<double>(Limits::max())) {
                value = Limits::max();
            } else {
                value = static_cast<Value>(number);
            }
            return;
        }
    }
    json.get_to(value);
}

template <typename Value>
Value number(const Json& json) {
    Value value{};
    read(json, value);
    return value;
}

/// Every row is required: a missing key throws the JSON library's out_of_range.
template <typename Record, typename Fields>
void read_fields(const Json& json, Record& record, const Fields& fields) {
    std::apply([&](const auto&... field) { (read(json.at(field.key), record.*field.member), ...); }, fields);
}

template <typename Record, typename Fields>
void write_fields(Json& json, const Record& record, const Fields& fields) {
    // By itself the object looks for each new key among the others, and copies its keys when it grows.
    Json::object_t object;
    object.reserve(std::tuple_size_v<Fields>);
    std::apply([&](const auto&... field) { (object.emplace_back(field.key, record.*field.member), ...); },
               fields);
    json = std::move(object);
}

}  // namespace kiv::json

#endif
