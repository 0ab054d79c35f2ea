/*
 * Platform log and history-event log.
 *
 * The stand-in (platform/log) appends to $TAVEL_ROOT/var/log/tavel.log and
 * $TAVEL_ROOT/var/log/history.log when TAVEL_ROOT is set, and uses syslog
 * (ident "tavelAgent") otherwise.
 *
 * Every function here is thread-safe, returns nothing and never fails
 * visibly: a record that cannot be written is dropped.  A call may block
 * briefly on the log's storage, never on the bus or the network.  The
 * format's arguments are only read during the call.  One call is one record:
 * records of several threads never interleave within a line.
 */
#ifndef TAVEL_PLATFORM_LOG_H
#define TAVEL_PLATFORM_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* The agent's own log at three levels (debug, notice, error).  On a device
 * the data-model library may be the one that provides them.  The agent
 * hands over each of its lines finished, as the format "%s" and the line
 * (its "tavel: [func file:line] " prefix included): an implementation may
 * take that argument as it is instead of formatting it. */
void dmlLogDebug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void dmlLogNotice(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void dmlLogError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Levels follow syslog: 3 error, 5 notice, 7 debug. */
void log_log(int level, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

/* One history event, the entry the device shows its user. */
void event_log_log(int type, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
