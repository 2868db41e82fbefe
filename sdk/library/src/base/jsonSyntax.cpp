#include "base/jsonSyntax.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

#include <kiv/kiv_json.h>

namespace kiv::json {

namespace {

/// The bytes that stand for themselves in a string: all of ASCII but control characters, quote and backslash.
constexpr std::array<bool, 256> kPlain = [] {
    std::array<bool, 256> plain{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte)
        plain[byte] = byte != '"' && byte != '\\';
    return plain;
}();

constexpr std::ptrdiff_t kSurelyFinite = 300;  // Characters of a number without an exponent.

/// Goes through a text once. A token with something rare in it goes to the JSON library, whose rules of
/// UTF-8, surrogates and ranges are so the only ones. The zero byte behind the text ends every loop: no token
/// has one, and behind the value the JSON library, too, takes it for the end of the text.
class Reader {
  public:
    explicit Reader(const std::string& text) : at_(text.c_str()) {
        if (text.starts_with("\xef\xbb\xbf")) at_ += 3;
    }

    bool read_all() {
        for (;;) {
            const char first = skip_space();
            if (first == '{' || first == '[') {
                open_.push_back(first == '{');
                ++at_;
                if (skip_space() != closing()) {
                    if (first == '{' && !read_key()) return false;
                    continue;
                }
            } else if (!read_simple(first)) {
                return false;
            }
            while (!open_.empty() && skip_space() == closing()) {
                open_.pop_back();
                ++at_;
            }
            if (open_.empty()) return skip_space() == '\0';
            if (*at_ != ',') return false;
            ++at_;
            if (open_.back() && !read_key()) return false;
        }
    }

  private:
    char closing() const { return open_.back() ? '}' : ']'; }

    char skip_space() {
        while (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')
            ++at_;
        return *at_;
    }

    bool read_key() {
        if (skip_space() != '"' || !read_string() || skip_space() != ':') return false;
        ++at_;
        return true;
    }

    bool read_simple(char first) {
        switch (first) {
            case '"':
                return read_string();
            case 't':
                return read_word("true");
            case 'f':
                return read_word("false");
            case 'n':
                return read_word("null");
            default:
                return read_number();
        }
    }

    bool read_word(std::string_view word) {
        if (std::strncmp(at_, word.data(), word.size()) != 0) return false;
        at_ += word.size();
        return true;
    }

    bool read_string() {
        const char* const first = at_++;
        bool rare = false;
        for (;; ++at_) {
            while (kPlain[static_cast<unsigned char>(*at_)])
                ++at_;
            if (*at_ == '"') break;
            if (*at_ == '\\') rare |= std::strchr("\"\\/bfnrt", *++at_) == nullptr;
            if (static_cast<unsigned char>(*at_) < ' ') return false;
            rare |= static_cast<unsigned char>(*at_) >= 0x80;
        }
        ++at_;
        return !rare || nlohmann::json::accept(first, at_);
    }

    bool read_number() {
        const char* const first = at_;
        if (*at_ == '-') ++at_;
        if (*at_ == '0') {
            ++at_;
        } else if (!read_digits()) {
            return false;
        }
        if (*at_ == '.') {
            ++at_;
            if (!read_digits()) return false;
        }
        if (*at_ != 'e' && *at_ != 'E' && at_ - first < kSurelyFinite) return true;
        at_ += std::strspn(at_, "0123456789+-.eE");
        return nlohmann::json::accept(first, at_);
    }

    bool read_digits() {
        const char* const first = at_;
        while (*at_ >= '0' && *at_ <= '9')
            ++at_;
        return at_ != first;
    }

    const char* at_;
    std::vector<bool> open_;  ///< What is open, the innermost last: an object, or else an array.
};

}  // namespace

bool is_valid(const std::string& text) {
    return Reader(text).read_all();
}

}  // namespace kiv::json
