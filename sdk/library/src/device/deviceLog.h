/// Log lines of the device layer.
#ifndef KIV_DEVICE_LOG_H
#define KIV_DEVICE_LOG_H

#include "log/kivLogDispatch.h"

/// Writes one line at error level; `line` is the reporting statement's.
template <typename... Args>
void device_log_error(int line, std::string_view format, const Args&... args) {
    kivLog_dispatch(KIV_LOG_LEVEL_ERROR, "sdk/library/src/device/Device", line, format, args...);
}

#endif
