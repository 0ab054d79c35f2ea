/*
 * The agent's state as an operator sees it (the GetStatus bus method,
 * "tavelctl status").  One record, owned here, written by whichever thread
 * changes the state (start-up, a timer step, the bootstrap handler) and read
 * by the bus thread.  Its own mutex guards it, held only for a copy, so an
 * answer never waits for the agent lock or a transfer.
 *
 * Each change of state writes one notice line, "state WORD: CAUSE", with the
 * wall-clock time (UTC) of the next try when one is scheduled; the same
 * state with the same cause again (a poll every 10 s) writes nothing.
 */
#ifndef TAVEL_AGENT_STATUS_H
#define TAVEL_AGENT_STATUS_H

#include <stddef.h>

#include <string>

#include "util.h"

enum class AgentState : unsigned char {
    Starting,           /* start-up, before the onboarding decision */
    WaitingClock,       /* the clock still shows 1970 */
    WaitingRole,        /* the work mode is CFG: no network role yet */
    Fetching,           /* the GET of the onboarding data runs */
    Applying,           /* a reply arrived: its settings are applied (with their pauses) */
    RetryWait,          /* the GET failed; retryTimer is armed */
    WaitingBootstrap,   /* an account was applied; the bootstrap signal is due */
    Reporting,          /* the status PUT runs */
    ReportRetryWait,    /* the PUT failed; statusUpdateTimer is armed */
    WaitingTimezone,    /* report accepted; the time-zone marker is awaited */
    WaitingCountryCode, /* exit refused: a parked country code waits for its timer */
    Idle,               /* nothing scheduled: a failure that is not retried */
    Exiting,
};

/* The short word of a state ("retry-wait"). */
const char *tavel_stateName(AgentState state);
/* The state now (the last one entered). */
AgentState tavel_statusState(void);

/* Enters a state: nextTrySeconds >= 0 schedules the next try that many
 * nominal seconds from now (scaled like the timers), < 0 clears it.  The
 * cause is formatted, bounded, and logged on a change; the line names the
 * caller.  Entering Fetching counts one attempt. */
#define TAVEL_STATUS(state, nextTrySeconds, fmt, ...)                                                        \
    tavel_statusEnter(__func__, TAVEL_FILE, __LINE__, state, nextTrySeconds, fmt, ##__VA_ARGS__)
void tavel_statusEnter(const char *func, const char *file, int line, AgentState state, int nextTrySeconds,
                       const char *fmt, ...) __attribute__((format(printf, 6, 7)));

/* The facts an operator asks about besides the state. */
void tavel_statusResult(int code);             /* the last result of a GET or PUT */
void tavel_statusRetryCount(int count);        /* the back-off's retry count */
void tavel_statusFirewall(int open);           /* the two firewall rules are in place */
void tavel_statusAccount(int present);         /* a management account is configured */
void tavel_statusPendingReport(int due);       /* a status report is owed */
void tavel_statusParkedCode(const char *code); /* "" or null: none */

/* "503 Service Unavailable": a result code with a few words of meaning. */
void tavel_resultText(int code, char *buf, size_t size);

/* The snapshot as one JSON object (the GetStatus answer).  Values only:
 * the account is "present" or "empty", never its fields. */
std::string tavel_statusJson(void);

/* Back to the start-up values (tests). */
void tavel_statusReset(void);

#endif
