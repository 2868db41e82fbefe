/// The library's log lines, caught by its own callback from creation to destruction.
#ifndef KIV_TEST_CAPTURED_LOG_H
#define KIV_TEST_CAPTURED_LOG_H

#include <kiv/kivLog.h>

#include <mutex>

#include "support/Lines.h"

/// A configured management-server client sends lines back to the back end (it reopens the log): call again()
/// then.
class CapturedLog {
  public:
    explicit CapturedLog(kiv_log_level_t level = KIV_LOG_LEVEL_DEBUG);
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// Takes the lines once more after something else reopened the log.
    void again();

    /// The texts so far, and with them none.
    Lines take();

  private:
    static void receive(kiv_log_level_t level, const char* message, void* self);

    const kiv_log_config_t config_;
    std::mutex mutex_;
    Lines lines_;
};

#endif
