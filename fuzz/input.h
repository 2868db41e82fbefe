/// What the targets share: taking an input apart, and saying what must hold.
///
/// A target is one function, LLVMFuzzerTestOneInput: it gives every input to one part of the product, and
/// ends the process when that part breaks a promise.
#ifndef KIV_FUZZ_INPUT_H
#define KIV_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace fuzz {

/// A promise that was kept, or the end of the process.
inline void expect(bool kept, const char* promise) {
    if (kept) return;
    std::fprintf(stderr, "not so: %s\n", promise);
    std::abort();
}

/// What the product writes about every bad input would take most of the time.
inline void be_quiet() {
    std::cerr.rdbuf(nullptr);
    setenv("OS_ACTIVITY_MODE", "disable", 1);
}

inline std::string text_of(const uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The parts of an input that consists of texts: what stands between lines of two dashes. At least one.
inline std::vector<std::string> parts_of(const std::string& text) {
    constexpr std::string_view kBetween = "\n--\n";
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find(kBetween, begin)) != std::string::npos;
         begin = end + kBetween.size())
        parts.push_back(text.substr(begin, end - begin));
    parts.push_back(text.substr(begin));
    return parts;
}

/// An input of bytes, from its beginning; behind its end there are zeros. One thread.
class Bytes {
  public:
    explicit Bytes(std::span<const uint8_t> bytes) : rest_(bytes) {}

    bool empty() const { return rest_.empty(); }

    uint8_t byte() {
        if (rest_.empty()) return 0;
        const uint8_t first = rest_.front();
        rest_ = rest_.subspan(1);
        return first;
    }

    std::string text(std::size_t size) {
        std::string taken(size, '\0');
        for (char& each : taken)
            each = static_cast<char>(byte());
        return taken;
    }

    template <typename Number>
    Number number() {
        uint64_t value = 0;
        for (std::size_t at = 0; at < sizeof(Number); ++at)
            value |= uint64_t{byte()} << 8 * at;
        return static_cast<Number>(value);
    }

  private:
    std::span<const uint8_t> rest_;
};

}  // namespace fuzz

#endif
