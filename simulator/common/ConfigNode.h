/// Reading of settings that complain by name: from cards.json, and from the control address.
#ifndef KIVSIM_CONFIG_NODE_H
#define KIVSIM_CONFIG_NODE_H

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kivsim {

using Json = nlohmann::ordered_json;

/// Settings that cannot be used; the text names the source and the key.
class BadConfig : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Parses what comes from outside: nesting beyond all use, which would cost the stack, is refused.
inline Json parse_json(const std::string& text) {
    constexpr int kMostLevels = 64;
    return Json::parse(text, [](int level, Json::parse_event_t, const Json&) {
        if (level > kMostLevels) throw BadConfig("more than 64 levels of JSON");
        return true;
    });
}

/// A value of the file and the way to it, so that a complaint can name the key.
class ConfigNode {
  public:
    ConfigNode(const Json& json, std::string way) : json_(json), way_(std::move(way)) {}

    [[noreturn]] void complain(const std::string& what) const {
        throw BadConfig(is_root() ? way_ + "the top level " + what : way_ + ": " + what);
    }

    /// The members of an object; complains about keys that are not in `known`.
    void members(std::initializer_list<const char*> known) const {
        if (!json_.is_object()) complain("must be an object");
        for (const auto& [key, value] : json_.items()) {
            const auto same = [&key = key](const char* name) { return key == name; };
            if (std::none_of(known.begin(), known.end(), same)) {
                throw BadConfig(way_to(key) + ": unknown key");
            }
        }
    }
    bool has(const char* key) const { return json_.contains(key); }
    ConfigNode at(const char* key) const {
        if (!json_.is_object()) complain("must be an object");
        if (!has(key)) throw BadConfig(way_to(key) + ": missing");
        return ConfigNode(json_.at(key), way_to(key));
    }

    template <typename Use>
    void each(Use use) const {
        if (!json_.is_array()) complain("must be an array");
        for (std::size_t i = 0; i < json_.size(); ++i)
            use(ConfigNode(json_[i], way_ + "[" + std::to_string(i) + "]"));
    }
    template <typename Use>
    void each_member(Use use) const {
        if (!json_.is_object()) complain("must be an object");
        for (const auto& [key, value] : json_.items())
            use(key, ConfigNode(value, way_to(key)));
    }

    const Json& json() const { return json_; }

    std::string text() const {
        if (!json_.is_string()) complain("must be a text");
        return json_.get<std::string>();
    }

    /// A number, or a text of one in decimal or, after "0x", in hexadecimal digits.
    template <typename Number>
    Number number() const {
        constexpr uint64_t kGreatest = std::numeric_limits<Number>::max();
        uint64_t value = 0;
        if (json_.is_number_unsigned()) {
            value = json_.get<uint64_t>();
        } else if (!json_.is_string() || !parse(json_.get<std::string>(), value)) {
            complain("must be a number, 0 or greater, or a text such as \"0x1F\"");
        }
        if (value > kGreatest) complain("must be at most " + std::to_string(kGreatest));
        return static_cast<Number>(value);
    }

    /// An array of just so many numbers; `values` stay when it is none.
    template <typename Number, std::size_t count>
    void numbers(Number (&values)[count]) const {
        std::vector<Number> given;
        each([&](const ConfigNode& item) { given.push_back(item.number<Number>()); });
        if (given.size() != count) complain("must have " + std::to_string(count) + " numbers");
        std::copy(given.begin(), given.end(), values);
    }

    uint32_t address() const {
        in_addr parsed{};
        if (inet_pton(AF_INET, text().c_str(), &parsed) != 1)
            complain("must be an IPv4 address such as \"10.0.0.1\"");
        return ntohl(parsed.s_addr);
    }

    static bool parse(const std::string& text, uint64_t& value) {
        const bool hex = text.starts_with("0x") || text.starts_with("0X");
        const char* first = text.data() + (hex ? 2 : 0);
        const char* last = text.data() + text.size();
        const auto [end, error] = std::from_chars(first, last, value, hex ? 16 : 10);
        return error == std::errc{} && end == last;
    }

  private:
    bool is_root() const { return way_.ends_with(": "); }
    std::string way_to(const std::string& key) const { return way_ + (is_root() ? "" : ".") + key; }

    const Json& json_;
    const std::string way_;  ///< "SOURCE: " for the root, then the keys.
};

template <typename Number>
void take(const ConfigNode& object, const char* key, Number& value) {
    if (object.has(key)) value = object.at(key).number<Number>();
}

}  // namespace kivsim

#endif
