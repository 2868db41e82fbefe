/// The log's back end: one process-wide logger over the sinks that its settings name.
#ifndef KIV_LOG_MANAGER_H
#define KIV_LOG_MANAGER_H

#include <spdlog/common.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kiv/kivLog.h>
#include <kiv/threadSafety.h>

namespace spdlog {
class logger;
}

namespace kiv::log {

/// Settings of the back end.
struct LogConfig {
    kiv_log_level_t level = KIV_LOG_LEVEL_ERROR;  ///< Threshold of the logger, for the life of the process.
    std::string file_path;           ///< File of the "file" sink; rotates at 10 MiB, 5 files are kept.
    std::vector<std::string> sinks;  ///< "console", "file", "syslog", "os_log", in order; others are skipped.
    std::string os_log_subsystem;    ///< Subsystem under which the "os_log" sink writes.
    std::string os_log_category;     ///< Must not be empty for the "os_log" sink, which writes without one.
};

/// Level info, the one sink "os_log" under the vendor's identifier, category "sdk".
KIV_API LogConfig loadConfigDefault();

/// 0 to 3 become error, warning, info, debug; every other value becomes off.
KIV_API spdlog::level::level_enum to_spdlog_level(kiv_log_level_t level);

/// Owns the process's logger.
class KIV_API LogManager {
  public:
    /// Created at first use, never destroyed.
    static LogManager& getInstance();

    /// Builds the logger from `config`, makes it spdlog's default logger and sets spdlog's pattern, both for
    /// the whole process. Only the first call that succeeds counts: out of memory it throws std::bad_alloc
    /// and keeps nothing. A sink that cannot be made is reported on standard error and skipped; with none
    /// left, the console takes over. Any thread may log meanwhile.
    void init(const LogConfig& config);

    /// The logger, or null before the first init. It stays until the process is gone.
    spdlog::logger* getLogger() const { return ready_.load(std::memory_order_acquire); }

    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

  private:
    KIV_LOCAL LogManager();
    ~LogManager() = default;

    std::mutex mutex_;  ///< One init at a time.
    std::shared_ptr<spdlog::logger> logger_ KIV_GUARDED_BY(mutex_);
    std::atomic<spdlog::logger*> ready_{nullptr};  ///< `logger_`, once it is complete.
    std::atomic<bool> exiting_{false};             ///< The process exits: spdlog's registry goes.
};

}  // namespace kiv::log

#endif
