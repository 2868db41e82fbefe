/// Diagnostics of the driver client: one line each in the platform's default log.
#ifndef KIV_DRIVER_LOG_H
#define KIV_DRIVER_LOG_H

/// Writes a line at error level, with the subsystem's prefix and the reporting statement's `line`. Composed
/// only when the platform log takes errors.
__attribute__((format(printf, 2, 3))) void driver_log(int line, const char* format, ...);

#endif
