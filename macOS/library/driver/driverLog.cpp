#include "driverLog.h"

#include <os/log.h>

#include <cstdarg>
#include <cstdio>

#include "vendor.h"

void driver_log(int line, const char* format, ...) {
    if (!os_log_type_enabled(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR)) return;
    char text[512];  // The longest message is far shorter.
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);

    char whole[sizeof text + 128];
    std::snprintf(whole, sizeof whole, "[%s::%d]LIBKIVXDEV: %s", kiv::kVendorIdentifier, line, text);
    os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR, "%{public}s", whole);
}
