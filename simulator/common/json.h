/// Reading and writing of JSON: in one source file, because every other one that did so would compile for
/// seconds longer.
#ifndef KIVSIM_JSON_H
#define KIVSIM_JSON_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kivsim {

using Json = nlohmann::ordered_json;

/// Throws std::exception; nesting beyond all use, which would cost the stack, is refused too.
Json parse_json(const std::string& text);

/// In one line, or with an indent. Throws when a text in it is no UTF-8.
std::string text_of(const Json& json, int indent = -1);

/// A text as JSON, in quotes; what is no UTF-8 is replaced.
std::string quoted(const std::string& text);

}  // namespace kivsim

#endif
