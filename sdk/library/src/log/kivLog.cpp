#include <kiv/kivLog.h>

#include <spdlog/logger.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <limits>
#include <mutex>
#include <new>
#include <thread>

#include <kiv/LogManager.h>
#include <kiv/threadSafety.h>
#include "base/guarded.h"
#include "log/kivLogDispatch.h"

constinit std::atomic<kiv_log_level_t> kiv::log::g_threshold{KIV_LOG_LEVEL_ERROR};
constinit std::atomic<kiv_log_level_t> kiv::log::g_dropped_above{KIV_LOG_LEVEL_ERROR};
constinit std::atomic<kiv_log_sink_t> kiv::log::g_sink{KIV_LOG_SINK_DEFAULT};

namespace {

using kiv::guarded;
using kiv::log::g_sink;
using kiv::log::g_threshold;
using kiv::log::LogConfig;
using kiv::log::LogManager;

constexpr const char* kSource = "sdk/library/src/log/kivLog";
constexpr int kBusyLine = 198;  // Log readers know it: docs/oddities.md.
constexpr int kCloseAttempts = 100;
constexpr std::chrono::microseconds kClosePause{1000};

struct Callback {
    kiv_log_callback_t function = nullptr;
    void* user_data = nullptr;
};

/// The part of the process-wide state that has to be built.
struct LogState {
    std::atomic<uint32_t> callbacks_in_progress{0};

    std::mutex mutex;
    Callback callback KIV_GUARDED_BY(mutex);  ///< Function and user data change together.
};

/// Never destroyed: threads of the application may still log while the process exits. Not on the heap:
/// without memory the log is as it is without an open.
LogState& state() {
    alignas(LogState) static std::byte place[sizeof(LogState)];
    static LogState& instance = *new (place) LogState;
    return instance;
}

/// Counts a callback as in progress for as long as it lives, also when the callback throws.
class CallbackInProgress {
  public:
    // Sequentially consistent, like the look at the sink that follows: either the close sees this callback,
    // or this thread sees the close.
    CallbackInProgress() { state().callbacks_in_progress.fetch_add(1); }
    ~CallbackInProgress() { state().callbacks_in_progress.fetch_sub(1, std::memory_order_release); }
    CallbackInProgress(const CallbackInProgress&) = delete;
    CallbackInProgress& operator=(const CallbackInProgress&) = delete;
};

kiv_result_t open(const kiv_log_config_t* config, kiv_log_sink_t sink, Callback callback,
                  LogConfig& back_end) {
    // Without a configuration nothing of the rest is taken either: docs/oddities.md.
    if (config != nullptr) {
        {
            const std::lock_guard lock(state().mutex);
            state().callback = callback;
            g_sink = sink;
            g_threshold = config->level;
            kiv::log::g_dropped_above = config->level;
        }
        back_end.level = config->level;
    }
    LogManager::getInstance().init(back_end);
    return KIV_OK;
}

/// Apart from kivLog_print, which needs no stack for a line that is dropped.
[[gnu::noinline]] kiv_result_t print(kiv_log_level_t level, const char* message) noexcept {
    return guarded([&] {
        kivLog_dispatch(level, nullptr, 0, "{}", message);
        return KIV_OK;
    });
}

}  // namespace

void kiv::log::drop_nothing_at_once() noexcept {
    g_dropped_above = std::numeric_limits<kiv_log_level_t>::max();
}

kiv_result_t kivLog_open(const kiv_log_config_t* config, kiv_log_sink_t sink, kiv_log_callback_t callback,
                         void* user_data) {
    return guarded([&] {
        LogConfig back_end = kiv::log::loadConfigDefault();
        return open(config, sink, {callback, user_data}, back_end);
    });
}

kiv_result_t kivLog_open_with_config(const kiv_log_config_t* config, kiv_log_sink_t sink,
                                     kiv_log_callback_t callback, void* user_data, LogConfig& log_config) {
    return guarded([&] { return open(config, sink, {callback, user_data}, log_config); });
}

kiv_result_t kivLog_close() {
    g_sink = KIV_LOG_SINK_DEFAULT;
    for (int attempt = 0; attempt < kCloseAttempts; ++attempt) {
        if (state().callbacks_in_progress == 0) return KIV_OK;
        std::this_thread::sleep_for(kClosePause);
    }
    if (state().callbacks_in_progress == 0) return KIV_OK;
    // The line's text is the source path (docs/oddities.md): past this interface's threshold, the logger's
    // own level still applies.
    if (spdlog::logger* logger = LogManager::getInstance().getLogger()) {
        logger->log(spdlog::source_loc{kSource, kBusyLine, ""}, spdlog::level::err,
                    spdlog::string_view_t(kSource));
    }
    return KIV_ERR_LOG_BUSY;
}

kiv_result_t kivLog_print(kiv_log_level_t level, const char* message) {
    return message == nullptr || kiv::log::is_dropped_at_once(level) ? KIV_OK : print(level, message);
}

kiv_log_sink_t kivLog_get_type() {
    return g_sink;
}

kiv_log_level_t kivLog_get_level() {
    return g_threshold;
}

void kivLog_dispatch_impl(kiv_log_level_t level, const char*, int, const char* message) {
    if (message == nullptr) return;
    const CallbackInProgress in_progress;
    if (g_sink != KIV_LOG_SINK_CALLBACK) return;
    Callback callback;
    {
        const std::lock_guard lock(state().mutex);
        callback = state().callback;
    }
    if (callback.function != nullptr) callback.function(level, message, callback.user_data);
}

kiv_result_t kivLog_dispatch_spdlog(kiv_log_level_t level, const char* file, int line, const char* message) {
    if (message == nullptr || level < KIV_LOG_LEVEL_ERROR || level > KIV_LOG_LEVEL_DEBUG) return KIV_OK;
    guarded([&] {  // Without memory for the back end the line is lost.
        if (spdlog::logger* logger = LogManager::getInstance().getLogger()) {
            logger->log(spdlog::source_loc{file, line, ""}, kiv::log::to_spdlog_level(level),
                        spdlog::string_view_t(message));
        }
        return KIV_OK;
    });
    return KIV_OK;
}
