/* Stand-in for the platform logger's public header: same declarations as the
 * platform's dlog.h for the calls this project makes. */
#ifndef HDRGPU_STANDIN_DLOG_H
#define HDRGPU_STANDIN_DLOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT,
    DLOG_VERBOSE,
    DLOG_DEBUG,
    DLOG_INFO,
    DLOG_WARN,
    DLOG_ERROR,
    DLOG_FATAL,
    DLOG_SILENT,
    DLOG_PRIO_MAX
} log_priority;

typedef enum {
    LOG_ID_INVALID = -1,
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_SYSTEM = 2,
    LOG_ID_APPS = 3,
    LOG_ID_MAX
} log_id_t;

typedef enum {
    DLOG_ERROR_NONE = 0,
    DLOG_ERROR_INVALID_PARAMETER = -22,
    DLOG_ERROR_NOT_PERMITTED = -1
} dlog_error_e;

/* Writes one line to buffer log_id. Returns the number of bytes of the
 * formatted message on success, DLOG_ERROR_INVALID_PARAMETER for a NULL tag,
 * a NULL format, an unknown log id or a priority outside
 * DLOG_DEFAULT..DLOG_SILENT. */
int __dlog_print(log_id_t log_id, int prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int __dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap)
    __attribute__((format(printf, 4, 0)));
int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif

#endif
