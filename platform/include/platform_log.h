/*
 * Platform log and history-event log.
 *
 * The stand-in (platform/log) appends to $TAVEL_ROOT/var/log/tavel.log and
 * $TAVEL_ROOT/var/log/history.log when TAVEL_ROOT is set, and uses syslog
 * (ident "tavelAgent") otherwise.  The dmlLog* calls live in dml.h because
 * the data-model layer owns them on the device.
 */
#ifndef TAVEL_PLATFORM_LOG_H
#define TAVEL_PLATFORM_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Levels follow syslog: 3 error, 5 notice, 7 debug. */
void log_log(int level, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

/* One history event, the entry the device shows its user. */
void event_log_log(int type, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
