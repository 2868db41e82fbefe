/// Reading of settings that complain by name: from the cards file, and from the control address.
#ifndef KIVSIM_CONFIG_NODE_H
#define KIVSIM_CONFIG_NODE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/json.h"

namespace kivsim {

/// Settings that cannot be used; the text names the source and the key.
class BadConfig : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A value and the way to it, so that a complaint can name the key.
class ConfigNode {
  public:
    /// The top level of a text. Complaints begin with "SOURCE: ", also that about a text that is no JSON.
    ConfigNode(const std::string& text, const std::string& source);

    [[noreturn]] void complain(const std::string& what) const;

    /// The members of an object; complains about keys that are not in `known`.
    void members(const std::vector<const char*>& known) const;
    bool has(const char* key) const;
    ConfigNode at(const char* key) const;

    void each(const std::function<void(const ConfigNode& item)>& use) const;
    void each_member(const std::function<void(const std::string& key, const ConfigNode& value)>& use) const;

    const Json& json() const { return *json_; }

    /// "SOURCE: key", as complaints begin.
    const std::string& way() const { return way_; }

    std::string text() const;
    bool boolean() const;

    /// A JSON number in these limits, with or without a fraction.
    double real(double least, double greatest) const;

    /// A number, or a text of one in decimal or, after "0x", in hexadecimal digits.
    template <typename Number>
    Number number() const {
        return static_cast<Number>(number_up_to(std::numeric_limits<Number>::max()));
    }

    /// An array of just so many numbers; `values` stay when it is none.
    template <typename Number, std::size_t count>
    void numbers(Number (&values)[count]) const {
        std::vector<Number> given;
        each([&](const ConfigNode& item) { given.push_back(item.number<Number>()); });
        if (given.size() != count) complain("must have " + std::to_string(count) + " numbers");
        std::copy(given.begin(), given.end(), values);
    }

    /// IPv4, first octet in the most significant byte.
    uint32_t address() const;

    static bool parse(const std::string& text, uint64_t& value);

  private:
    ConfigNode(const ConfigNode& parent, const Json& json, const std::string& way);

    bool is_root() const { return way_.ends_with(": "); }
    std::string way_to(const std::string& key) const { return way_ + (is_root() ? "" : ".") + key; }
    uint64_t number_up_to(uint64_t greatest) const;

    std::shared_ptr<const Json> json_;  ///< Shares the value of the whole text, which lives as long.
    std::string way_;                   ///< "SOURCE: " for the root, then the keys.
};

template <typename Number>
void take(const ConfigNode& object, const char* key, Number& value) {
    if (object.has(key)) value = object.at(key).number<Number>();
}

}  // namespace kivsim

#endif
