/// How code inside the library writes a line. Apart from kivLog.h so that applications need no formatting
/// library.
#ifndef KIV_LOG_DISPATCH_H
#define KIV_LOG_DISPATCH_H

#include <fmt/format.h>

#include <string>
#include <string_view>

#include <kiv/kivLog.h>

/// Formats `format` (with `{}` placeholders) and writes it when `level` is wanted; otherwise nothing is
/// formatted. `file` is a path such as "sdk/library/src/kiv_api". A format that does not match its arguments
/// throws fmt's format_error.
template <typename... Args>
void kivLog_dispatch(kiv_log_level_t level, const char* file, int line, std::string_view format,
                     const Args&... args) {
    if (level == KIV_LOG_LEVEL_NONE || level > kivLog_get_level()) return;
    const kiv_log_sink_t sink = kivLog_get_type();

    fmt::memory_buffer buffer;
    fmt::vformat_to(fmt::appender(buffer), fmt::string_view(format.data(), format.size()),
                    fmt::make_format_args(args...));
    const std::string text(buffer.data(), buffer.size());

    if (sink == KIV_LOG_SINK_CALLBACK) kivLog_dispatch_impl(level, file, line, text.c_str());
    if (sink == KIV_LOG_SINK_DEFAULT) kivLog_dispatch_spdlog(level, file, line, text.c_str());
}

namespace kiv {

/// Who writes: the paths that lines carry.
inline constexpr const char* kApiSource = "sdk/library/src/kiv_api";
inline constexpr const char* kDeviceSource = "sdk/library/src/device/Device";
inline constexpr const char* kHpsSource = "macOS/library/kivHpsClientKit/hpsClient";
inline constexpr const char* kHttpSource = "macOS/library/kivHpsClientKit/kivClient";

/// A format text, and the line where it becomes one: that of the reporting statement.
struct LogFormat {
    // NOLINTNEXTLINE(google-explicit-constructor): the caller writes the text alone.
    LogFormat(const char* format, int at = __builtin_LINE()) : text(format), line(at) {}
    const char* text;
    int line;
};

/// Writes one line at error level.
template <typename... Args>
void log_error(const char* source, LogFormat format, const Args&... args) {
    kivLog_dispatch(KIV_LOG_LEVEL_ERROR, source, format.line, format.text, args...);
}

}  // namespace kiv

#endif
