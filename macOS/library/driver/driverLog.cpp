#include "driver/driverLog.h"

#include <os/log.h>

#include <cstdarg>
#include <cstdio>

#include "base/vendor.h"

void driver_log(int line, const char* format, ...) {
    if (!os_log_type_enabled(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR)) return;
    // The name in the prefix stays: docs/oddities.md.
    // Long enough for every message but that of a service name beyond all measure, which is cut.
    char text[1024];
    const int prefix = std::snprintf(text, sizeof text, "[%s::%d]LIBKIVXDEV: ", kiv::kVendorIdentifier, line);
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text + prefix, sizeof text - static_cast<std::size_t>(prefix), format, arguments);
    va_end(arguments);
    os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR, "%{public}s", text);
}
