/* Controls of the logger stand-in; not part of the platform's API.
 *
 * By default every accepted line goes to the system log (syslog(3), facility
 * LOG_USER, as "[<buffer>] <tag>: <text>"), never to standard output. A host or a test can
 * install a sink instead: it then receives every accepted line, already
 * formatted, and nothing goes to the system log until the sink is removed. */
#ifndef HDRGPU_STANDIN_DLOG_CONTROL_H
#define HDRGPU_STANDIN_DLOG_CONTROL_H

#include "dlog.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives one accepted line: its buffer, priority, tag and formatted text. */
typedef void (*dlog_standin_sink)(void *user, log_id_t log_id, int prio, const char *tag,
                                  const char *message);

/* Installs sink (with its user pointer) for all later lines; NULL restores the
 * system log. Safe to call from any thread. The sink runs under the logger's
 * lock, so lines reach it one at a time; it must not log itself. */
void dlog_standin_set_sink(dlog_standin_sink sink, void *user);

#ifdef __cplusplus
}
#endif

#endif
