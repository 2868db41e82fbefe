/// How code inside the library writes a line. Apart from kivLog.h so that applications need no formatting
/// library.
#ifndef KIV_LOG_DISPATCH_H
#define KIV_LOG_DISPATCH_H

#include <fmt/format.h>

#include <atomic>

#include <kiv/kivLog.h>

namespace kiv::log {

/// What kivLog_open sets, for the whole process. Read here and not by a call, as most lines are dropped.
/// Nothing builds or destroys them: threads may log from the process's first moment to its last.
extern std::atomic<kiv_log_level_t> g_threshold;
extern std::atomic<kiv_log_sink_t> g_sink;

/// The threshold, or above all levels when more has to be known of a line before it is dropped: an
/// application's line that is not wanted takes this one look. Local, as a table of addresses would be a
/// second look.
[[gnu::visibility("hidden")]] extern std::atomic<kiv_log_level_t> g_dropped_above;

inline bool is_dropped_at_once(kiv_log_level_t level) {
    return level > g_dropped_above.load(std::memory_order_relaxed);
}

/// For a forked child: until an open sets the threshold anew, no line is dropped at once.
void drop_nothing_at_once() noexcept;

inline bool is_dropped(kiv_log_level_t level) {
    return level == KIV_LOG_LEVEL_NONE || level > g_threshold.load(std::memory_order_relaxed);
}

/// Not for inlining: a line that is dropped needs none of its registers and none of its stack.
template <typename... Args>
[[gnu::noinline]] void write(kiv_log_level_t level, const char* file, int line, const char* format,
                             const Args&... args) {
    const kiv_log_sink_t sink = g_sink;

    fmt::memory_buffer buffer;
    fmt::vformat_to(fmt::appender(buffer), fmt::string_view(format), fmt::make_format_args(args...));
    buffer.push_back('\0');

    if (sink == KIV_LOG_SINK_CALLBACK) kivLog_dispatch_impl(level, file, line, buffer.data());
    if (sink == KIV_LOG_SINK_DEFAULT) kivLog_dispatch_spdlog(level, file, line, buffer.data());
}

}  // namespace kiv::log

/// Formats `format` (with `{}` placeholders) and writes it when `level` is wanted; otherwise nothing is
/// formatted. `file` is a path such as "sdk/library/src/kiv_api". A format that does not match its arguments
/// throws fmt's format_error.
template <typename... Args>
void kivLog_dispatch(kiv_log_level_t level, const char* file, int line, const char* format,
                     const Args&... args) {
    if (kiv::log::is_dropped(level)) return;
    kiv::log::write(level, file, line, format, args...);
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
