// What is wrong with a configuration file, key by key, and on which line.
#include <arpa/inet.h>
#include <kiv/CardConfig.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <span>
#include <stdexcept>

#include "configuration.h"
#include "numbers.h"
#include "output.h"

namespace kivctl {

namespace {

/// Counts the lines that the parser has taken. The parser copies its iterators: they share the count.
class CountingIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, int* line) : at_(at), line_(line) {}
    reference operator*() const { return *at_; }
    CountingIterator& operator++() {
        if (*at_ == '\n') ++*line_;
        ++at_;
        return *this;
    }
    bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
    bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

  private:
    const char* at_;
    int* line_;
};

/// Follows the parser and notes on which line each key, or item of an array, stands.
class Lines : public nlohmann::json_sax<Json> {
  public:
    explicit Lines(const int& line) : line_(line) {}

    int of(const std::string& key) const {
        const auto known = lines_.find(key);
        return known == lines_.end() ? 0 : known->second;
    }
    const std::set<std::string>& repeated() const { return repeated_; }
    int error_line() const { return error_line_; }
    const std::string& error() const { return error_; }

    bool null() override { return value(); }
    bool boolean(bool) override { return value(); }
    bool number_integer(number_integer_t) override { return value(); }
    bool number_unsigned(number_unsigned_t) override { return value(); }
    bool number_float(number_float_t, const string_t&) override { return value(); }
    bool string(string_t&) override { return value(); }
    bool binary(binary_t&) override { return value(); }
    bool start_object(std::size_t) override { return open(false); }
    bool start_array(std::size_t) override { return open(true); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        way_.back().name = name;
        if (!way_.back().names.insert(name).second) repeated_.insert(here());
        note();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
        error_line_ = line_;
        error_ = error.what();
        const std::size_t column = error_.find("column ");
        if (column != std::string::npos) error_.erase(0, column);  // Before it the line stands again.
        return false;
    }

  private:
    struct Step {
        bool array;
        int index = 0;
        std::string name;
        std::set<std::string> names;
    };

    std::string here() const {
        std::string key;
        for (const Step& step : way_)
            key += step.array ? "[" + std::to_string(step.index) + "]" : (key.empty() ? "" : ".") + step.name;
        return key;
    }
    void note() { lines_[here()] = line_; }
    bool value() {
        if (way_.empty()) return true;
        if (way_.back().array) {
            note();
            ++way_.back().index;
        }
        return true;
    }
    bool open(bool array) {
        constexpr std::size_t kDeep = 100;  // As the library.
        if (way_.size() == kDeep) throw std::runtime_error("more than 100 levels");
        if (!way_.empty() && way_.back().array) note();
        way_.push_back({array, 0, "", {}});
        return true;
    }
    bool close() {
        way_.pop_back();
        return value_of_container();
    }
    bool value_of_container() {
        if (!way_.empty() && way_.back().array) ++way_.back().index;
        return true;
    }

    const int& line_;
    std::vector<Step> way_;
    std::map<std::string, int> lines_;
    std::set<std::string> repeated_;
    int error_line_ = 0;
    std::string error_;
};

enum class Kind {
    Number,
    Id,
    Switch,
    Octet,
    Interval,
    Vlan,
    Port,
    Text,
    Address,
    Netmask,
    Ptp,
    Ports,
    Tunnel,
    Cards
};
struct Row {
    const char* name;
    Kind kind;
};

// clang-format off
constexpr Row kRoot[]   = {{"version", Kind::Number}, {"ptp", Kind::Ptp}, {"devices", Kind::Cards}, {"mactun", Kind::Tunnel}};
constexpr Row kPtp[]    = {{"announceReceiptTimeout", Kind::Octet}, {"domainNumber", Kind::Octet}, {"logAnnounceInterval", Kind::Interval},
                           {"logDelayReqInterval", Kind::Interval}, {"unicast_delay_req", Kind::Switch}};
constexpr Row kCard[]   = {{"device_id", Kind::Id}, {"chip_id", Kind::Text}, {"maceth0", Kind::Ports}, {"maceth1", Kind::Ports}};
constexpr Row kPort[]   = {{"ip_addr", Kind::Address}, {"netmask", Kind::Netmask}, {"tos", Kind::Octet}, {"ttl", Kind::Octet}, {"vlan_id", Kind::Vlan}};
constexpr Row kTunnel[] = {{"ip_addr", Kind::Address}, {"server_port", Kind::Port}};
// clang-format on

std::span<const Row> rows_of(Kind kind) {
    switch (kind) {
        case Kind::Ptp:
            return kPtp;
        case Kind::Ports:
            return kPort;
        case Kind::Tunnel:
            return kTunnel;
        default:
            return {};
    }
}

bool is_contiguous(uint32_t mask) {
    const uint32_t rest = ~mask;
    return (rest & (rest + 1)) == 0;
}

class Checker {
  public:
    explicit Checker(const Lines& lines) : lines_(lines) {}

    std::vector<Finding> findings;

    void object(const Json& json, const std::string& key, std::span<const Row> rows) {
        if (!json.is_object()) return complain(key, "must be an object");
        for (const Row& row : rows) {
            const std::string below = key.empty() ? row.name : key + "." + row.name;
            if (!json.contains(row.name)) {
                findings.push_back({lines_.of(key), below, "is missing"});
            } else {
                value(json[row.name], below, row.kind);
            }
        }
        for (const auto& item : json.items()) {
            const std::string& name = item.key();
            const bool known =
                std::any_of(rows.begin(), rows.end(), [&](const Row& row) { return name == row.name; });
            const bool access = name == "hps_access";  // Of hpsClient, which reads it itself.
            if (!known && !access)
                warn(key.empty() ? name : key + "." + name, "is not known, and has no effect");
        }
    }

  private:
    void complain(const std::string& key, const std::string& problem) {
        findings.push_back({lines_.of(key), key, problem});
    }
    void warn(const std::string& key, const std::string& problem) {
        findings.push_back({lines_.of(key), key, problem, false});
    }

    void value(const Json& json, const std::string& key, Kind kind) {
        if (kind == Kind::Cards) return cards(json, key);
        if (const std::span<const Row> rows = rows_of(kind); !rows.empty()) return object(json, key, rows);
        if (kind == Kind::Text || kind == Kind::Address || kind == Kind::Netmask) {
            if (!json.is_string()) return complain(key, "must be a text");
            if (kind != Kind::Text) address(json.get<std::string>(), key, kind);
        } else if (!json.is_number() && !json.is_boolean()) {
            complain(key, "must be a number");
        } else {
            number(json, key, kind);
        }
    }

    void cards(const Json& json, const std::string& key) {
        if (!json.is_array()) return complain(key, "must be an array");
        std::set<Json> ids;
        for (std::size_t i = 0; i < json.size(); ++i) {
            const std::string below = key + "[" + std::to_string(i) + "]";
            object(json[i], below, kCard);
            if (json[i].is_object() && json[i].contains("device_id") &&
                !ids.insert(json[i]["device_id"]).second)
                warn(below + ".device_id", "is another card's too: the first counts");
        }
    }

    void address(const std::string& text, const std::string& key, Kind kind) {
        in_addr parsed{};
        const bool cut = text.find('\0') != std::string::npos;  // There inet_pton() ends.
        if (cut || inet_pton(AF_INET, text.c_str(), &parsed) != 1)
            warn(key, "is no IPv4 address such as \"192.168.10.11\"");
        else if (kind == Kind::Netmask && !is_contiguous(ntohl(parsed.s_addr)))
            warn(key, "is no netmask: its one bits do not stand together");
    }

    void number(const Json& json, const std::string& key, Kind kind) {
        const double given = json.is_boolean() ? static_cast<double>(json.get<bool>()) : json.get<double>();
        double least = std::numeric_limits<int32_t>::min();
        double most = std::numeric_limits<int32_t>::max();
        if (kind == Kind::Octet || kind == Kind::Id) least = 0, most = 255;
        if (kind == Kind::Interval) least = -128, most = 127;
        if (kind == Kind::Vlan) least = 0, most = 4094;
        if (kind == Kind::Port) least = 1, most = 65535;
        if (kind == Kind::Switch) least = 0, most = 1;
        if (given != std::trunc(given) || (kind == Kind::Id && json.is_boolean()))
            warn(key, "is no whole number");
        if (given < least || given > most)
            warn(key, "is not between " + std::to_string(static_cast<int64_t>(least)) + " and " +
                          std::to_string(static_cast<int64_t>(most)));
    }

    const Lines& lines_;
};

/// What the library says of the file; empty when it loads it.
std::string refusal_of_library(const std::string& path) {
    try {
        kiv::config::CardConfig::load_from_file(path);
        return "";
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace

std::string Finding::text() const {
    return printable((line == 0 ? "" : "line " + std::to_string(line) + ": ") + key +
                     (key.empty() ? "" : ": ") + problem);
}

std::vector<Finding> check_configuration(const std::string& path) {
    return check_text(path, read_text(path));
}

std::vector<Finding> check_text(const std::string& path, const std::string& text) {
    int line = 1;
    Lines lines(line);
    const CountingIterator first(text.data(), &line);
    const CountingIterator last(text.data() + text.size(), &line);
    try {
        if (!Json::sax_parse(first, last, &lines)) return {{lines.error_line(), "", lines.error()}};
    } catch (const std::exception& error) {
        return {{line, "", error.what()}};
    }
    Checker checker(lines);
    checker.object(Json::parse(text), "", kRoot);
    std::vector<Finding>& findings = checker.findings;
    for (const std::string& key : lines.repeated())
        findings.push_back({lines.of(key), key, "stands there more than once: the last counts", false, true});
    if (text.find('\0') != std::string::npos)  // The parser, and the library's, ends there.
        findings.push_back({line, "", "holds a NUL byte: what stands behind it has no effect", false});
    const std::string refusal = refusal_of_library(path);
    const bool explained =
        std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.fatal; });
    if (!refusal.empty() && !explained) findings.push_back({0, "", refusal});
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return std::move(findings);
}

std::vector<Finding> check_settings(const std::string& path, uint8_t id) {
    const Json file = read_configuration(path);
    const Json& cards = file["devices"];
    const auto entry =
        std::find_if(cards.begin(), cards.end(), [id](const Json& card) { return is_entry_of(card, id); });
    const std::string ports = "devices[" + std::to_string(entry - cards.begin()) + "].maceth";
    std::vector<Finding> findings = check_configuration(path);
    const auto is_other = [&](const Finding& finding) {
        const std::string& key = finding.key;
        const bool of_port = key.starts_with(ports) && (key.ends_with(".tos") || key.ends_with(".ttl"));
        return finding.repeated || !(key.starts_with("ptp.") || of_port);
    };
    findings.erase(std::remove_if(findings.begin(), findings.end(), is_other), findings.end());
    return findings;
}

}  // namespace kivctl
