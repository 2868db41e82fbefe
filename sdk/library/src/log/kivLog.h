/*
 * The library's log: where lines go, which lines are wanted, and how the application adds its own.
 *
 * A line has a level; it is written when its level is at most the threshold. It goes to the application's
 * callback or to the library's back end, which writes to the unified system log unless
 * kivLog_open_with_config chose other sinks.
 *
 * Before any open the threshold is "error", and lines for the back end are dropped: the exported classes log
 * nothing in a process that has called neither kivLog_open nor kiv_open. (An hpsClient that finds its server
 * opens the log itself. kivDriverClient writes its lines to the unified system log, opened or not.)
 *
 * Threads: every function may be called from any thread at any time.
 */
#ifndef KIV_LOG_H
#define KIV_LOG_H

#include <stdint.h>

#include <kiv/kiv_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Level of a line, and threshold: a smaller number is more severe. */
typedef int32_t kiv_log_level_t;
enum {
    KIV_LOG_LEVEL_ERROR = 0,
    KIV_LOG_LEVEL_WARNING = 1,
    KIV_LOG_LEVEL_INFO = 2,
    KIV_LOG_LEVEL_DEBUG = 3,
    /*
     * A line of this level is always dropped. As a threshold it does not switch the log off, but lets every
     * line of the other levels through. Only as the level of the very first open it switches off the back
     * end, for the life of the process; a callback gets its lines even then.
     */
    KIV_LOG_LEVEL_NONE = 4
};

/* Where lines go. Any other value drops every line. */
typedef uint32_t kiv_log_sink_t;
enum {
    KIV_LOG_SINK_DEFAULT = 0, /* The library's back end. */
    KIV_LOG_SINK_CALLBACK = 1 /* The application's callback. */
};

/* Log settings of the application. */
typedef struct kiv_log_config_t {
    kiv_log_level_t level; /* Threshold. */
} kiv_log_config_t;

/*
 * Receives one line: the text alone, without level, file, line number or line end. `message` is valid during
 * the call only. Runs on the thread that logs, on several at once when several log; the library holds no lock
 * meanwhile.
 */
typedef void (*kiv_log_callback_t)(kiv_log_level_t level, const char* message, void* user_data);

/*
 * Sets threshold and destination, and starts the back end with its default settings (system log) at the first
 * call; later calls change threshold and destination only. A null `config` keeps threshold and destination as
 * they are and only starts the back end: sink, callback and user data are then ignored. Returns KIV_OK;
 * KIV_ERR_FAILED when memory runs out.
 *
 * The back end keeps the level of its first open for itself: lines of a higher number never reach its sinks,
 * whatever threshold a later open sets. To see more later, open first with KIV_LOG_LEVEL_DEBUG, then with the
 * level for now.
 *
 * The first open also makes the back end spdlog's default logger, and its pattern spdlog's pattern, for the
 * whole process: that changes what an application writes through the same spdlog library.
 *
 * kiv_open with settings, a scan (for each card's management server, with level info) and a successful
 * hpsClient::open_config open the log anew, with the back end: a callback is removed. Open the log again
 * after them to keep one.
 */
KIV_API kiv_result_t kivLog_open(const kiv_log_config_t* config, kiv_log_sink_t sink,
                                 kiv_log_callback_t callback, void* user_data);

/*
 * Sends lines to the back end from now on and waits up to 100 ms for running callbacks. KIV_OK: no callback
 * runs and none will start, so its user data may go. KIV_ERR_LOG_BUSY: one is still running.
 */
KIV_API kiv_result_t kivLog_close(void);

/*
 * Writes `message` as it stands (braces are not placeholders). A null message is dropped. Returns KIV_OK;
 * KIV_ERR_FAILED when the callback throws.
 */
KIV_API kiv_result_t kivLog_print(kiv_log_level_t level, const char* message);

/* The present destination and threshold. */
KIV_API kiv_log_sink_t kivLog_get_type(void);
KIV_API kiv_log_level_t kivLog_get_level(void);

/*
 * The two ways of an already formatted line, which no longer look at the threshold. kivLog_dispatch_impl
 * calls the callback if lines go to it (kivLog_get_type is KIV_LOG_SINK_CALLBACK), and else drops the line;
 * an exception of the callback leaves it. kivLog_dispatch_spdlog writes to the back end, wherever lines go,
 * and returns KIV_OK. A null message is dropped.
 */
KIV_API void kivLog_dispatch_impl(kiv_log_level_t level, const char* file, int line, const char* message);
KIV_API kiv_result_t kivLog_dispatch_spdlog(kiv_log_level_t level, const char* file, int line,
                                            const char* message);

#ifdef __cplusplus
}

namespace kiv {
namespace log {
struct LogConfig;
}
}  // namespace kiv

/*
 * As kivLog_open, with the caller's back-end settings (LogManager.h) in place of the defaults. When `config`
 * is given, its level is written into `log_config.level` too.
 */
extern "C" KIV_API kiv_result_t kivLog_open_with_config(const kiv_log_config_t* config, kiv_log_sink_t sink,
                                                        kiv_log_callback_t callback, void* user_data,
                                                        kiv::log::LogConfig& log_config);
#endif

#endif
