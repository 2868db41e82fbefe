/// Reading and writing of JSON: in one source file, because every other one that did so would compile for
/// seconds longer.
#ifndef KIVSIM_JSON_H
#define KIVSIM_JSON_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kivsim {

using Json = nlohmann::ordered_json;

/// Members that a JSON object may have, and objects or arrays that an array may have.
inline constexpr int kMostMembers = 10'000;

/// Throws std::exception. Refuses also nesting beyond all use, which would cost the stack, and objects and
/// arrays of so many that to look for each would cost minutes.
Json parse_json(const std::string& text);

/// In one line, or with an indent; what is no UTF-8 is replaced.
std::string text_of(const Json& json, int indent = -1);

/// A text as JSON, in quotes; likewise.
std::string quoted(const std::string& text);

}  // namespace kivsim

#endif
