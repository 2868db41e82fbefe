/// JSON in tests. Parser and writer are compiled here once: in every test that uses them they would take the
/// compiler seconds each.
#ifndef KIV_TEST_JSON_H
#define KIV_TEST_JSON_H

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>

/// Keeps the order of its keys, and compares it.
using Json = nlohmann::ordered_json;

Json parsed(const std::string& text);                    ///< Throws the library's errors.
std::string text_of(const Json& json, int indent = -1);  ///< In one line, or with an indent.

namespace nlohmann {
/// For GoogleTest's messages.
void PrintTo(const ordered_json& json, std::ostream* out);
}  // namespace nlohmann

#endif
