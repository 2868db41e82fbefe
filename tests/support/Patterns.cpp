#include "support/Patterns.h"

#include <regex>

Lines matches_of(const std::string& text, const std::string& pattern) {
    const std::regex wanted(pattern);
    return {std::sregex_token_iterator(text.begin(), text.end(), wanted), {}};
}

std::string replaced(const std::string& text, const std::string& pattern, const std::string& by) {
    return std::regex_replace(text, std::regex(pattern), by);
}
