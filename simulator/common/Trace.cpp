#include "common/Trace.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "common/hex.h"

namespace kivsim {

namespace {

std::string status_text(int32_t status) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(status));
    return text;
}

/// The members that all events have. A service's name has nothing that JSON would escape.
std::string begin(const char* event, uint64_t connection, const std::string& service) {
    return std::string(R"({"event":")") + event + R"(","connection":)" + std::to_string(connection) +
           R"(,"service":")" + service + '"';
}

}  // namespace

Trace::Trace(const std::string& path) {
    if (path.empty()) return;
    file_.reset(std::fopen(path.c_str(), "we"));
    if (!file_) throw std::runtime_error(path + ": " + std::generic_category().message(errno));
}

void Trace::open(uint64_t connection, const std::string& service, uint32_t type, int32_t status) {
    if (!file_) return;
    write(begin("open", connection, service) + R"(,"type":)" + std::to_string(type) + R"(,"status":")" +
          status_text(status) + R"("})");
}

void Trace::close(uint64_t connection, const std::string& service) {
    if (!file_) return;
    write(begin("close", connection, service) + "}");
}

void Trace::call(uint64_t connection, const std::string& service, uint32_t selector,
                 std::span<const std::byte> input, int32_t status, std::span<const std::byte> reply) {
    if (!file_) return;
    write(begin("call", connection, service) + R"(,"selector":)" + std::to_string(selector) +
          R"(,"input":")" + hex(input) + R"(","status":")" + status_text(status) + R"(","reply":")" +
          hex(reply) + R"("})");
}

void Trace::write(const std::string& line) {
    std::fprintf(file_.get(), "%s\n", line.c_str());
    std::fflush(file_.get());
}

}  // namespace kivsim
