#include "common/ConfigNode.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace kivsim {

namespace {

/// Without the JSON library's mark of its own errors: "parse error at line 1, column 2: ...".
Json parsed(const std::string& text, const std::string& source) {
    try {
        return parse_json(text);
    } catch (const std::exception& error) {
        const std::string what = error.what();
        const bool marked = what.starts_with("[json.exception") && what.find("] ") != std::string::npos;
        throw BadConfig(source + ": " + (marked ? what.substr(what.find("] ") + 2) : what));
    }
}

}  // namespace

ConfigNode::ConfigNode(const std::string& text, const std::string& source)
    : json_(std::make_shared<const Json>(parsed(text, source))), way_(source + ": ") {}

ConfigNode::ConfigNode(const ConfigNode& parent, const Json& json, const std::string& way)
    : json_(parent.json_, &json), way_(way) {}

void ConfigNode::complain(const std::string& what) const {
    throw BadConfig(is_root() ? way_ + "the top level " + what : way_ + ": " + what);
}

void ConfigNode::members(const std::vector<const char*>& known) const {
    each_member([&](const std::string& key, const ConfigNode&) {
        const auto same = [&](const char* name) { return key == name; };
        if (std::none_of(known.begin(), known.end(), same)) throw BadConfig(way_to(key) + ": unknown key");
    });
}

bool ConfigNode::has(const char* key) const {
    return json_->contains(key);
}

ConfigNode ConfigNode::at(const char* key) const {
    if (!json_->is_object()) complain("must be an object");
    if (!has(key)) throw BadConfig(way_to(key) + ": missing");
    return ConfigNode(*this, json_->at(key), way_to(key));
}

void ConfigNode::each(const std::function<void(const ConfigNode& item)>& use) const {
    if (!json_->is_array()) complain("must be an array");
    for (std::size_t i = 0; i < json_->size(); ++i)
        use(ConfigNode(*this, (*json_)[i], way_ + "[" + std::to_string(i) + "]"));
}

void ConfigNode::each_member(
    const std::function<void(const std::string& key, const ConfigNode& value)>& use) const {
    if (!json_->is_object()) complain("must be an object");
    for (const auto& [key, value] : json_->items())
        use(key, ConfigNode(*this, value, way_to(key)));
}

std::string ConfigNode::text() const {
    if (!json_->is_string()) complain("must be a text");
    return json_->get<std::string>();
}

bool ConfigNode::boolean() const {
    if (!json_->is_boolean()) complain("must be true or false");
    return json_->get<bool>();
}

double ConfigNode::real(double least, double greatest) const {
    const double value = json_->is_number() ? json_->get<double>() : least - 1;
    if (value >= least && value <= greatest) return value;
    char limits[64];
    std::snprintf(limits, sizeof limits, "%.10g to %.10g", least, greatest);
    complain(std::string("must be a number from ") + limits);
}

uint64_t ConfigNode::number_up_to(uint64_t greatest) const {
    uint64_t value = 0;
    if (json_->is_number_unsigned()) {
        value = json_->get<uint64_t>();
    } else if (!json_->is_string() || !parse(json_->get<std::string>(), value)) {
        complain("must be a number, 0 or greater, or a text such as \"0x1F\"");
    }
    if (value > greatest) complain("must be at most " + std::to_string(greatest));
    return value;
}

uint32_t ConfigNode::address() const {
    in_addr parsed{};
    if (inet_pton(AF_INET, text().c_str(), &parsed) != 1)
        complain("must be an IPv4 address such as \"10.0.0.1\"");
    return ntohl(parsed.s_addr);
}

bool ConfigNode::parse(const std::string& text, uint64_t& value) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char* first = text.data() + (hex ? 2 : 0);
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(first, last, value, hex ? 16 : 10);
    return error == std::errc{} && end == last;
}

}  // namespace kivsim
