#include "card/reconfigure.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>

#include "base/ipText.h"

namespace kivsim {

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    return pieces;
}

bool is_integer(const std::string& text) {
    const std::size_t start = text.starts_with("-") ? 1 : 0;
    return text.size() > start && text.size() < 12 &&
           std::all_of(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

/// "ADDRESS/PREFIX" into the interface of that name.
bool set_address(std::vector<InterfaceSettings>& interfaces, const char* name, const std::string& text) {
    const std::vector<std::string> parts = split(text, '/');
    in_addr parsed{};
    if (parts.size() != 2 || inet_pton(AF_INET, parts[0].c_str(), &parsed) != 1 || !is_integer(parts[1]))
        return false;
    const int prefix = std::stoi(parts[1].substr(0, 3));
    if (prefix < 0 || prefix > 32) return false;
    for (InterfaceSettings& entry : interfaces) {
        if (entry.if_name != name) continue;
        entry.ip_addr = parts[0];
        entry.netmask = bitCountToNetmask(prefix);
    }
    return true;
}

}  // namespace

std::string reconfigure(std::vector<InterfaceSettings>& interfaces, const std::string& command) {
    struct Group {
        const char* name;
        const char* if_name;  ///< Of the interface whose address comes first, or null.
        std::size_t values;
    };
    constexpr Group kGroups[] = {{"macethP", "maceth0", 4},
                                 {"macethS", "maceth1", 4},
                                 {"macptp", nullptr, 5},
                                 {"mactun", "mactun", 3}};
    std::vector<InterfaceSettings> changed = interfaces;
    std::vector<std::string> words = split(command, ' ');
    if (words.size() > 1 && words.back().empty()) words.pop_back();
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        const auto group = std::find_if(std::begin(kGroups), std::end(kGroups), [&](const Group& candidate) {
            return equals != std::string::npos && word.substr(0, equals) == candidate.name;
        });
        if (group == std::end(kGroups)) return "unknown group in \"" + word + "\"";
        std::vector<std::string> values = split(word.substr(equals + 1), ',');
        if (values.size() != group->values) return std::string(group->name) + " needs other values";
        std::size_t first_number = 0;
        if (group->if_name != nullptr) {
            if (!set_address(changed, group->if_name, values[0]))
                return std::string(group->name) + " has no address";
            first_number = 1;
        }
        if (word.starts_with("mactun=") && values.back().ends_with("us"))
            values.back().resize(values.back().size() - 2);
        for (std::size_t i = first_number; i < values.size(); ++i) {
            if (!is_integer(values[i]))
                return std::string(group->name) + ": \"" + values[i] + "\" is no number";
        }
    }
    interfaces = std::move(changed);
    return "";
}

}  // namespace kivsim
