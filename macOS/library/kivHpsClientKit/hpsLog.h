/// Log lines of the management-server client.
#ifndef KIV_HPS_LOG_H
#define KIV_HPS_LOG_H

#include "log/kivLogDispatch.h"

/// Writes one line at error level; `line` is the reporting statement's.
template <typename... Args>
void hps_log_error(int line, std::string_view format, const Args&... args) {
    kivLog_dispatch(KIV_LOG_LEVEL_ERROR, "macOS/library/kivHpsClientKit/hpsClient", line, format, args...);
}

#endif
