/// JSON texts from outside, read within limits. The JSON library looks for each new key among all keys of its
/// object, and copies and writes values with as many stack frames as they have levels: its time grows with
/// the square of the keys, and its stack with the levels. Stateless; any thread.
#ifndef KIV_JSON_TEXT_H
#define KIV_JSON_TEXT_H

#include <cstddef>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string_view>

namespace kiv::json {

inline constexpr std::size_t kMostLevels = 100;  ///< Of objects and arrays in each other.
inline constexpr std::size_t kMostKeys = 1000;   ///< In one object, each as often as written.
inline constexpr std::size_t kMostBytes = std::size_t{64} << 20;  ///< Of a text that has no end in sight.

/// A text goes beyond one of the limits.
class LimitError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Parses the whole text, without comments. Throws LimitError, and what the JSON library throws for a text
/// that is not JSON.
nlohmann::ordered_json parse(std::string_view text);

/// The same for all that the stream gives.
nlohmann::ordered_json parse(std::istream& stream);

}  // namespace kiv::json

#endif
