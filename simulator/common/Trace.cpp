#include "common/Trace.h"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kivsim {

namespace {

using Json = nlohmann::ordered_json;

std::string hex(std::span<const std::byte> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte) >> 4];
        text += kDigits[std::to_integer<unsigned>(byte) & 15];
    }
    return text;
}

std::string status_text(int32_t status) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(status));
    return text;
}

}  // namespace

Trace::Trace(const std::string& path) {
    if (path.empty()) return;
    file_.reset(std::fopen(path.c_str(), "we"));
    if (!file_) throw std::runtime_error(path + ": " + std::strerror(errno));
}

void Trace::open(uint64_t connection, const std::string& service, uint32_t type, int32_t status) {
    if (!file_) return;
    write(Json{{"event", "open"},
               {"connection", connection},
               {"service", service},
               {"type", type},
               {"status", status_text(status)}}
              .dump());
}

void Trace::close(uint64_t connection, const std::string& service) {
    if (!file_) return;
    write(Json{{"event", "close"}, {"connection", connection}, {"service", service}}.dump());
}

void Trace::call(uint64_t connection, const std::string& service, uint32_t selector,
                 std::span<const std::byte> input, int32_t status, std::span<const std::byte> reply) {
    if (!file_) return;
    write(Json{{"event", "call"},
               {"connection", connection},
               {"service", service},
               {"selector", selector},
               {"input", hex(input)},
               {"status", status_text(status)},
               {"reply", hex(reply)}}
              .dump());
}

void Trace::write(const std::string& line) {
    std::fprintf(file_.get(), "%s\n", line.c_str());
    std::fflush(file_.get());
}

}  // namespace kivsim
