#include "support/CapturedLog.h"

#include <utility>

CapturedLog::CapturedLog(kiv_log_level_t level) : config_{level} {
    again();
}

CapturedLog::~CapturedLog() {
    kivLog_close();
}

void CapturedLog::again() {
    kivLog_open(&config_, KIV_LOG_SINK_CALLBACK, &CapturedLog::receive, this);
}

Lines CapturedLog::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}

void CapturedLog::receive(kiv_log_level_t, const char* message, void* self) {
    auto& log = *static_cast<CapturedLog*>(self);
    const std::lock_guard lock(log.mutex_);
    log.lines_.emplace_back(message);
}
