#include "base/jsonText.h"

#include <array>
#include <istream>
#include <string>

#include <kiv/kiv_json.h>

namespace kiv::json {

namespace {

constexpr std::size_t kReadBlock = 65536;

/// The position of the quote that ends the string whose first quote is at `at`. Searching for quotes, and
/// only then for what escapes them, is several times as fast as a look at each byte.
std::size_t end_of_string(std::string_view text, std::size_t at) {
    for (;;) {
        const std::size_t quote = text.find('"', at + 1);
        if (quote == std::string_view::npos) return text.size();
        std::size_t first = quote;  // Of the backslashes before it; an even number escapes each other.
        while (text[first - 1] == '\\')
            --first;
        if ((quote - first) % 2 == 0) return quote;
        at = quote;
    }
}

/// Outside of strings every bracket is a level and every colon a key, so that counting them is exact for
/// JSON. Of other texts it counts at least as much as the parser sees before it stops. Not the JSON library's
/// own events: a second run of its lexer would take nearly as long as the parsing itself.
void check_limits(std::string_view text) {
    std::array<std::size_t, kMostLevels + 1> keys{};  ///< At each level, of the object that is open there.
    std::size_t level = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        switch (text[at]) {
            case '"':
                at = end_of_string(text, at);
                break;
            case '[':
            case '{':
                if (++level > kMostLevels) throw LimitError("more than 100 levels");
                keys[level] = 0;
                break;
            case ']':
            case '}':
                if (level > 0) --level;
                break;
            case ':':
                // At level 0 no object is open: the parser ends there by itself.
                if (level > 0 && ++keys[level] > kMostKeys)
                    throw LimitError("more than 1000 keys in one object");
                break;
            default:
                break;
        }
    }
}

}  // namespace

nlohmann::ordered_json parse(std::string_view text) {
    check_limits(text);
    return nlohmann::ordered_json::parse(text);
}

nlohmann::ordered_json parse(std::istream& stream) {
    std::string text;
    while (stream && text.size() <= kMostBytes) {
        const std::size_t filled = text.size();
        text.resize(filled + kReadBlock);
        stream.read(text.data() + filled, static_cast<std::streamsize>(kReadBlock));
        text.resize(filled + static_cast<std::size_t>(stream.gcount()));
    }
    if (text.size() > kMostBytes) throw LimitError("more than 64 MiB");
    return parse(text);
}

}  // namespace kiv::json
