#include "time_text.h"

#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

namespace kivctl {

namespace {

std::string date_and_time(std::time_t seconds, bool utc, const char* format) {
    std::tm parts{};
    utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
    char text[64];
    return {text, std::strftime(text, sizeof text, format, &parts)};
}

std::string text_of(std::chrono::system_clock::time_point time, bool utc) {
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    return fmt::format(
        "{}.{:03}{}",
        date_and_time(milliseconds / 1000, utc, utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S"),
        milliseconds % 1000, utc ? "Z" : "");
}

}  // namespace

Json tai_json(uint64_t nanoseconds, std::optional<int32_t> utc_offset) {
    constexpr uint64_t kSecond = 1'000'000'000;
    const auto tai = static_cast<std::time_t>(nanoseconds / kSecond);
    const std::string text =
        date_and_time(tai - utc_offset.value_or(0), true, "%Y-%m-%dT%H:%M:%S") +
        fmt::format(".{:09}", nanoseconds % kSecond) +
        (utc_offset ? fmt::format("Z (TAI-UTC {} s)", *utc_offset) : " TAI (TAI-UTC not known)");
    return {{"text", text}, {"tai_ns", std::to_string(nanoseconds)}};
}

std::string time_now(bool utc) {
    return text_of(std::chrono::system_clock::now(), utc);
}

std::string utc_text(std::chrono::system_clock::time_point time) {
    return text_of(time, true);
}

std::string short_time(double seconds) {
    if (seconds < 10) return fmt::format("{:.1f} s", seconds);
    if (seconds < 120) return fmt::format("{:.0f} s", seconds);
    if (seconds < 7200) return fmt::format("{:.0f} min", seconds / 60);
    return fmt::format("{:.0f} h", seconds / 3600);
}

std::string minutes_and_seconds(std::chrono::steady_clock::duration time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
    return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

}  // namespace kivctl
