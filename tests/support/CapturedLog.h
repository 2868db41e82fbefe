/// The library's log lines, caught by its own callback from creation to destruction.
#ifndef KIV_TEST_CAPTURED_LOG_H
#define KIV_TEST_CAPTURED_LOG_H

#include <kiv/kivLog.h>

#include <mutex>
#include <utility>

#include "support/Lines.h"

class CapturedLog {
  public:
    explicit CapturedLog(kiv_log_level_t level = KIV_LOG_LEVEL_DEBUG) : config_{level} { again(); }
    ~CapturedLog() { kivLog_close(); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// Takes the lines once more after something else reopened the log, as a client does that is configured.
    void again() { kivLog_open(&config_, KIV_LOG_SINK_CALLBACK, &CapturedLog::receive, this); }

    /// The texts so far, and with them none.
    Lines take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

  private:
    static void receive(kiv_log_level_t, const char* message, void* self) {
        auto& log = *static_cast<CapturedLog*>(self);
        const std::lock_guard lock(log.mutex_);
        log.lines_.emplace_back(message);
    }

    const kiv_log_config_t config_;
    std::mutex mutex_;
    Lines lines_;
};

#endif
