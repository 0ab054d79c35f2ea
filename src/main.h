/*
 * Process-wide state of the agent and the operations of the main module
 * (start-up, timers, the onboarding run, country code and time zone).
 *
 * Concurrency: the records below are touched by the main thread during
 * start-up, by the timer thread that runs every timer expiry, and by the bus
 * thread's handlers.  Each of those holds the agent lock (util.h) while it
 * runs a step; a step gives the lock up only while it sleeps.
 */
#ifndef TAVEL_MAIN_H
#define TAVEL_MAIN_H

#include <signal.h>
#include <stdint.h>
#include <time.h>

#include <initializer_list>

#include "dml.h"
#include "stop.h"

/* Marker and data files (device paths; TAVEL_ROOT is prefixed at use). */
#define TAVEL_TIMEZONECONFIG_FILE "/flash/mcq/tavel/timezoneconfigdone.txt"
#define TAVEL_CLOULDURLCONFIG_FILE "/flash/mcq/tavel/KPRCConfigdone.txt"
#define TAVEL_CC_CONFIGURED_BY "/configs/cc_configured_by"
#define TAVEL_COUNTRY_CODE_FILE "/flash/cc_from_tavel"
#define TAVEL_MARKER_DIR "/flash/mcq/tavel"
#define TAVEL_ONBOARDING_IN_PROGRESS_FILE "/tmp/onboarding_in_progress"
#define TAVEL_TIMEZONE_MAPPING_FILE "/usr/configs/timezonemapping.csv"

#define TAVEL_FW_DPORTS "47777:47780"
#define TAVEL_LOCAL_PORT 47777
#define TAVEL_LOCAL_PORT_RANGE 3
#define TAVEL_DEFAULT_TIMEOUT 25
#define TAVEL_CC_APPLY_WAIT 1800
#define TAVEL_TIMER_SIGNAL SIGUSR1 /* 10 */
/* Signals with which a service manager or an operator stops the agent. */
#define TAVEL_STOP_SIGNALS                                                                                   \
    {                                                                                                        \
        SIGTERM, SIGINT, SIGHUP                                                                              \
    }

/* Result codes of the agent, in the same space as HTTP status codes. */
#define TAVEL_RC_BAD_STATUS 504
#define TAVEL_RC_NO_CERT 505
#define TAVEL_RC_TRANSFER_FAILED 5000
#define TAVEL_RC_TZ_UNAVAILABLE 5001
#define TAVEL_RC_NO_RESPONSE_CODE 5002

typedef struct HttpInfo {
    char url[256];
    uint8_t enable;
    int32_t timeout;
    int32_t authEnabled;
    char authType[16];
    char userName[16];
    char password[16];
    int32_t mss;
    char x_api_key[128];
    char caCertPath[68];
} HttpInfo;

typedef struct ServerData {
    char *mgmtUrl;
    char *cdpusername;
    char *cdppassword;
    char *operdesc;
    char *subnetdesc;
    char *tenantID;
    char countryCode[4];
    char *l1url;
    char *l2url;
    char *remotemappurl;
    char *kprconfigurl;
    char *kprconfigapikey;
} ServerData;

typedef struct TimezoneData {
    char timezone[50];
    char cityname[50];
    char errorcode[50];
} TimezoneData;

typedef struct TavelCtrl {
    int32_t statusUpdatePending;
    int32_t retryCount;
    timer_t statusUpdateTimer;
    timer_t retryTimer;
    timer_t startWaitTimer;
    timer_t ccApplyTimer;
} TavelCtrl;

typedef struct AcsBootstrapStatus {
    uint8_t reserved[32];
    int32_t status;
} AcsBootstrapStatus;
static_assert(sizeof(AcsBootstrapStatus) == 36, "AcsBootstrapStatus layout");

/* The timer a retry is armed on (getTimerByType, getTimerIdForErrorCode). */
enum TavelTimerType { TAVEL_TIMER_RETRY = 1, TAVEL_TIMER_STATUS = 2 };

/* The outcome the status report carries (appendStatusSuffix). */
enum TavelStatusValue { TAVEL_STATUS_ERROR = 2, TAVEL_STATUS_SUCCESS = 3 };

/* Index into the ConnStatus name table. */
enum ConnStatus {
    CONN_STATUS_NO_CONNECTION = 0,
    CONN_STATUS_FAILED_110 = 1,
    CONN_STATUS_SUCCESS = 2,
    CONN_STATUS_FAILED_204 = 3,
    CONN_STATUS_FAILED_400 = 4,
    CONN_STATUS_FAILED_401 = 5,
    CONN_STATUS_FAILED_403 = 6,
    CONN_STATUS_FAILED_500 = 7,
    CONN_STATUS_FAILED_503 = 8,
    CONN_STATUS_FAILED_NO_CERT = 9,
    CONN_STATUS_FAILED_CURL = 10,
    CONN_STATUS_COUNT = 11
};

/* The process-wide records of the device interface (main_state.cpp). */
extern HttpInfo g_httpInfo;
extern ServerData g_serverData;
extern TimezoneData g_timezoneData;
extern char g_timezone[50];
extern ModelCapability _g_modelCapability;
extern SupportedCountryList g_supportedCountryList;
extern TavelCtrl g_tavelCtrl;
extern AcsBootstrapStatus g_acsBootstrapStatus;
/* The CA file of the onboarding server, chosen at start-up (main.cpp). */
extern char g_certPath[28];

/* The agent's own state, under the device firmware's names, each value
 * owned by one module.  Each module has a reset to its start-up values,
 * which the test fixtures use instead of setting the values one by one. */

/* Retry back-off (main_timers.cpp); the count is g_tavelCtrl.retryCount. */
extern int32_t g_lastErrorCode; /* the code that armed the last retry */
extern int32_t g_retryTimeout;  /* base of the long back-off in seconds ("setTimeout") */
/* No retry counted, no code seen, a day's base. */
void tavel_resetRetryState(void);

/* The onboarding run (main_onboarding.cpp). */
extern int32_t g_statusRetryPending; /* a failed status upload waits for its retry */
extern int32_t g_serverDataNotUsed;  /* the reply held nothing to apply */
/* Nothing pending, no status upload owed (g_tavelCtrl.statusUpdatePending). */
void tavel_resetOnboardingState(void);

/* The country code (main_country.cpp). */
extern int32_t g_timerAliveFlag; /* a code is parked and its timer armed: exits are refused */
void tavel_resetCountryState(void);

/* What the time-zone header carried (main_timezone.cpp). */
extern char g_timezoneCode[50];   /* the zone code, as reported in the history event */
extern char g_continent_city[50]; /* the zone identifier, backslashes removed */
extern int32_t g_tzFailEventSent; /* the "service unavailable" event went out once */
void tavel_resetTimezoneHeaderState(void);

/* --- start-up (main.cpp) --- */
void initAgentState(void);
/* Every received value back to empty: the heap strings freed and allocated
 * again empty, the country code cleared (main_state.cpp). */
void tavel_resetServerData(void);
void tavelInit(void);
void *busThreadMain(void *arg);

/* --- timers and back-off (main_timers.cpp) --- */
/* Blocks the timer and stop signals in the calling thread; called first of
 * all, so every thread inherits the mask and only the timer thread takes
 * them, through its signalfds. */
void tavel_blockAgentSignals(void);
void initTimerSig(void);
/* 1 on the thread that takes timer expiries and stop signals. */
int tavel_onTimerThread(void);
/* The signalfd of timer expiries (-1 before initTimerSig), read by the timer
 * thread only; the stop signals' one is tavel_stopSignalFd (stop.h). */
int tavel_timerSignalFd(void);
void startTimer(int seconds, timer_t timer);
/* Runs the step that belongs to the timer whose handle lives at value. */
void dispatchTimerExpiry(void *value);
int getRandomJitter(int kind);
int getRetryExpTimerValue(void);
void getTimerByType(int type, timer_t *timer);
int getTimerIdForErrorCode(int code, int *seconds, timer_t *timer, int type);
/* How getTimerIdForErrorCode treats a result code. */
enum TavelRetryRule {
    TAVEL_RETRY_TRANSIENT, /* 0, 110, 503: exponential back-off */
    TAVEL_RETRY_LONG,      /* 204, 400, 401, 403, 404, 500: g_retryTimeout plus jitter */
    TAVEL_RETRY_TRANSFER,  /* 5000: 10 to 19 s */
    TAVEL_RETRY_TZ,        /* 5001: back-off, count kept */
    TAVEL_RETRY_NONE       /* any other code */
};
int tavel_retryRuleOf(int code);
/* Arms the retry of a failed result (getTimerIdForErrorCode on the timer of
 * type, then startTimer) and records the wait, with its cause and the time of
 * the next try, in the status snapshot.  getTimerIdForErrorCode's result. */
int tavel_armRetry(int code, int type);

/* --- exit, stop and waits (main_exit.cpp) --- */
/* Starts replacing the agent's two firewall rules (deletes, then inserts, one
 * command after the other) and returns at once; await returns once they have
 * run (at once when none are running).  A request waits for them before it
 * is sent, and the removal waits for them before it deletes. */
void tavel_startFirewallRules(void);
void tavel_awaitFirewallRules(void);
void tavel_removeFirewallRules(void);
/* The one normal way out: a transfer in flight is let end (10 s at most,
 * then abandoned), the firewall rules are removed, and the process exits
 * with status 0.  Refused while a parked country code keeps the agent alive:
 * it then returns after a long wait, and its caller must end its step at
 * once (every call is the last thing its step does). */
void exitTavel(void);
/* Ends the process with status 0, standard output flushed, without the
 * libraries' exit handlers (kept in sanitizer builds): the only place that
 * does, for every exit path of the agent. */
[[noreturn]] void tavel_exitProcess(void);
/* A point where a requested stop is carried out: the timer thread stops the
 * agent (never returns), any other thread gives the agent lock up and waits
 * for the end of the process.  Returns at once when no stop is requested. */
void tavel_stopPoint(void);
/* Brackets a network transfer, so the exit never runs while one is in
 * flight; the transfer's own thread calls both. */
void tavel_transferBegin(void);
void tavel_transferEnd(void);
/* Waits up to span for a stop or, with timerExpiries, a timer expiry, which
 * is then run before returning.  Used by tavel_sleep and the refused exit. */
void tavel_wait(struct timespec span, int timerExpiries);

/* --- onboarding run (main_onboarding.cpp) --- */
void validateSystemTimeAndStartPolling(void);
void connectToOnBoardServer(void);
int httpCodeToConnStatus(int code);
void updateStatus2OnBoardServer(const AcsBootstrapStatus *status);
void appendStatusSuffix(char *url, int statusValue);
void dumpHttpConnectionDetails(void);
void dumpAcsConnectionDetails(void);

/* --- country code (main_country.cpp) --- */
int validateCountryCode(const char *code);
int checkCcConfiguredBy(void);
void tavel_setCountryCode(const char *code);
void update_country_code(const char *code);
int tavel_setDataToFile(const char *path, const void *data, size_t size, int lock);
int tavel_getDataFromFile(char *buffer, const char *path, int size, int lock);
int read_from_file(const char *command, char *buffer, int size, int lock);
void removeCountryCodeFile(void);
void stripTrailingNewline(char *text);

/* --- time zone (main_timezone.cpp) --- */
void handle_timezoneHeader(const char *line, size_t length);
void removeBackslashes(char *text);
int gettimezonecmd(char *line, int size);
void gettimezoneandzonename(char *line, char *timezone, char *timezonename);
void tavel_handleTimezonedetails(const TimezoneData *data);

/* --- cloud settings application (main_cloud.cpp) --- */
void tavel_setCloudMAPPURL(ServerData serverData);

#endif
