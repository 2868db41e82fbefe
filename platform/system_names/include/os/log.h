/*
 * The unified system log. On Linux lines go to syslog, and to standard error as well when OS_ACTIVITY_DT_MODE
 * is set. OS_ACTIVITY_MODE, read once per process, chooses the types that are enabled: "info" adds info
 * lines, "debug" info and debug lines, "disable" leaves none; otherwise default, error and fault lines are
 * written.
 */
#ifndef OS_LOG_H
#define OS_LOG_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;

#define OS_LOG_TYPE_DEFAULT ((os_log_type_t)0x00)
#define OS_LOG_TYPE_INFO ((os_log_type_t)0x01)
#define OS_LOG_TYPE_DEBUG ((os_log_type_t)0x02)
#define OS_LOG_TYPE_ERROR ((os_log_type_t)0x10)
#define OS_LOG_TYPE_FAULT ((os_log_type_t)0x11)

extern struct os_log_s _os_log_default;
extern struct os_log_s _os_log_disabled;
#define OS_LOG_DEFAULT (&_os_log_default)
#define OS_LOG_DISABLED (&_os_log_disabled)

/* A log object; never released. OS_LOG_DISABLED when logging is disabled altogether. */
os_log_t os_log_create(const char* subsystem, const char* category);

bool os_log_type_enabled(os_log_t log, os_log_type_t type);

/* Not called directly: the macros below insist on a literal format. */
void _os_log_write(os_log_t log, os_log_type_t type, const char* format, ...);

#ifdef __cplusplus
}
#endif

/* printf conversions; "%{public}s" is "%s". */
#define os_log_with_type(log, type, ...) _os_log_write(log, type, "" __VA_ARGS__)
#define os_log_error(log, ...) _os_log_write(log, OS_LOG_TYPE_ERROR, "" __VA_ARGS__)

#endif
