// Timers and retry back-off.
//
// The four one-shot POSIX timers signal SIGUSR1 with the address of their own
// handle as the value, as on the device.  No work runs in signal context:
// SIGUSR1 and the stop signals stay blocked in every thread, and the timers
// direct SIGUSR1 to one timer thread that takes each expiry from a signalfd
// and runs its step in normal context, one at a time, holding the agent lock.
// The same thread takes the stop signals from a second signalfd and carries
// out the stop (main_exit.cpp).
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "agent_status.h"
#include "main.h"
#include "retry_seed.h"
#include "util.h"

namespace
{

int g_timerFd = -1;
pthread_t g_timerThread;
bool g_timerThreadStarted = false;
pid_t g_timerThreadTid = 0;
pthread_mutex_t g_startMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_startCond = PTHREAD_COND_INITIALIZER;

sigset_t timerSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, TAVEL_TIMER_SIGNAL);
    return set;
}

sigset_t stopSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : TAVEL_STOP_SIGNALS) {
        sigaddset(&set, sig);
    }
    return set;
}

void *timerThreadMain(void *)
{
    pthread_mutex_lock(&g_startMutex);
    g_timerThreadTid = static_cast<pid_t>(syscall(SYS_gettid));
    pthread_cond_signal(&g_startCond);
    pthread_mutex_unlock(&g_startMutex);

    for (;;) {
        // Each pass takes one expiry, or learns of a stop; tavel_wait() does
        // both and runs the expiry's step under the agent lock.
        struct timespec forever = {INT32_MAX, 0};
        tavel_wait(forever, 1);
    }
}

void createTimer(timer_t *handle)
{
    struct sigevent sev;
    memset(&sev, 0, sizeof(sev));
    sev.sigev_notify = SIGEV_SIGNAL | SIGEV_THREAD_ID;
    sev.sigev_signo = TAVEL_TIMER_SIGNAL;
    sev.sigev_value.sival_ptr = handle;
    // The field's public name; C libraries that predate it keep the tid in
    // the union member it stands for.
#ifdef sigev_notify_thread_id
    sev.sigev_notify_thread_id = g_timerThreadTid;
#else
    sev._sigev_un._tid = g_timerThreadTid;
#endif
    timer_create(CLOCK_REALTIME, &sev, handle);
}

} // namespace

// No code seen yet; the long back-off waits about a day.
constexpr int32_t kRetryTimeoutStart = 86400;
int32_t g_lastErrorCode = TAVEL_RC_NO_RESPONSE_CODE;
int32_t g_retryTimeout = kRetryTimeoutStart;

void tavel_resetRetryState(void)
{
    g_tavelCtrl.retryCount = 0;
    g_lastErrorCode = TAVEL_RC_NO_RESPONSE_CODE;
    g_retryTimeout = kRetryTimeoutStart;
}

void tavel_blockAgentSignals(void)
{
    sigset_t set = stopSignalSet();
    sigaddset(&set, TAVEL_TIMER_SIGNAL);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int tavel_onTimerThread(void)
{
    return g_timerThreadStarted && pthread_equal(pthread_self(), g_timerThread) ? 1 : 0;
}

int tavel_timerSignalFd(void)
{
    return g_timerFd;
}

void initTimerSig(void)
{
    TAVEL_LOGN("Establishing handler for signal %d\n", TAVEL_TIMER_SIGNAL);
    tavel_blockAgentSignals();
    sigset_t timerSet = timerSignalSet();
    sigset_t stopSet = stopSignalSet();
    g_timerFd = signalfd(-1, &timerSet, SFD_CLOEXEC | SFD_NONBLOCK);
    int stopFd = signalfd(-1, &stopSet, SFD_CLOEXEC | SFD_NONBLOCK);
    tavel_setStopSignalFd(stopFd);

    pthread_mutex_lock(&g_startMutex);
    if (g_timerFd >= 0 && stopFd >= 0 && tavel_startThread(&g_timerThread, timerThreadMain) == 0) {
        g_timerThreadStarted = true;
        while (g_timerThreadTid == 0) {
            pthread_cond_wait(&g_startCond, &g_startMutex);
        }
    }
    pthread_mutex_unlock(&g_startMutex);
    if (!g_timerThreadStarted) {
        TAVEL_LOGE("timer thread not started: %s\n", strerror(errno));
        return;
    }

    createTimer(&g_tavelCtrl.statusUpdateTimer);
    createTimer(&g_tavelCtrl.retryTimer);
    createTimer(&g_tavelCtrl.startWaitTimer);
    createTimer(&g_tavelCtrl.ccApplyTimer);
}

void startTimer(int seconds, timer_t timer)
{
    struct itimerspec its;
    memset(&its, 0, sizeof(its));
    // A delay of 0 (or a negative one, after "setTimeout" with a negative
    // value) disarms the timer: no retry follows.
    its.it_value = tavel_scaledDelay(seconds);
    timer_settime(timer, 0, &its, nullptr);
}

void dispatchTimerExpiry(void *value)
{
    if (value == &g_tavelCtrl.retryTimer) {
        connectToOnBoardServer();
    } else if (value == &g_tavelCtrl.statusUpdateTimer) {
        updateStatus2OnBoardServer(&g_acsBootstrapStatus);
    } else if (value == &g_tavelCtrl.startWaitTimer) {
        validateSystemTimeAndStartPolling();
    } else if (value == &g_tavelCtrl.ccApplyTimer) {
        TAVEL_LOGN("timeout reached apply cc via tavel\n");
        if (g_serverData.countryCode[0] != '\0') {
            if (validateCountryCode(g_serverData.countryCode) == 0) {
                update_country_code(g_serverData.countryCode);
            }
        } else {
            TAVEL_LOGE("g_serverData.countryCode is empty\n");
        }
    }
}

int getRandomJitter(int kind)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    // The product wraps in 32 bits on the device; only the low bits matter.
    uint32_t ms = static_cast<uint32_t>(tv.tv_sec) * 1000U + static_cast<uint32_t>(tv.tv_usec / 1000);
    int bound = static_cast<int>(ms & (kind == 2 ? 0xFFU : 0xFFFU));
    if (bound == 0 || bound == 1) {
        bound = 255;
    }
    return rand() % bound;
}

int getRetryExpTimerValue(void)
{
    TAVEL_LOGD("getRetryExpTimerValue g_tavelCtrl.retryCount: %d\n", g_tavelCtrl.retryCount);
    if (g_tavelCtrl.retryCount > 8) {
        g_tavelCtrl.retryCount = 8;
    }
    // Not the time alone: devices that fail in the same second would draw the
    // same delays and stay in lockstep at every attempt.
    srand(tavel_retrySeed());
    int base = 1;
    for (int i = 1; i < g_tavelCtrl.retryCount; ++i) {
        base *= 2;
    }
    int span = 5 * base;
    int interval = span + rand() % span;
    TAVEL_LOGD("getRetryExpTimerValue retryInterval: %d\n", interval);
    return interval;
}

void getTimerByType(int type, timer_t *timer)
{
    if (type == TAVEL_TIMER_RETRY) {
        *timer = g_tavelCtrl.retryTimer;
    } else if (type == TAVEL_TIMER_STATUS) {
        *timer = g_tavelCtrl.statusUpdateTimer;
    }
}

int tavel_retryRuleOf(int code)
{
    switch (code) {
    case 0:
    case 110:
    case 503:
        return TAVEL_RETRY_TRANSIENT;
    case 204:
    case 400:
    case 401:
    case 403:
    case 404:
    case 500:
        return TAVEL_RETRY_LONG;
    case TAVEL_RC_TRANSFER_FAILED:
        return TAVEL_RETRY_TRANSFER;
    case TAVEL_RC_TZ_UNAVAILABLE:
        return TAVEL_RETRY_TZ;
    default:
        return TAVEL_RETRY_NONE;
    }
}

int getTimerIdForErrorCode(int code, int *seconds, timer_t *timer, int type)
{
    TAVEL_LOGD("getTimerIdForErrorCode: %d\n", code);
    int delay;
    switch (tavel_retryRuleOf(code)) {
    case TAVEL_RETRY_TRANSIENT:
        g_tavelCtrl.retryCount = code == g_lastErrorCode ? g_tavelCtrl.retryCount + 1 : 1;
        delay = getRetryExpTimerValue();
        g_lastErrorCode = code;
        break;
    case TAVEL_RETRY_LONG: {
        // Wrap like the device's 32-bit arithmetic if an operator set a huge
        // base with "setTimeout", instead of overflowing.
        uint32_t sum = static_cast<uint32_t>(g_retryTimeout) + static_cast<uint32_t>(getRandomJitter(2));
        *seconds = static_cast<int32_t>(sum);
        g_lastErrorCode = code;
        getTimerByType(type, timer);
        return 0;
    }
    case TAVEL_RETRY_TRANSFER:
        g_tavelCtrl.retryCount = 2;
        delay = getRetryExpTimerValue();
        g_lastErrorCode = code;
        break;
    case TAVEL_RETRY_TZ:
        g_tavelCtrl.retryCount += 1;
        delay = getRetryExpTimerValue();
        break;
    default:
        return 1;
    }
    *seconds = delay;
    getTimerByType(type, timer);
    TAVEL_LOGN("ret %d retryCount value is %d retryCount seconds is %d\n", code, g_tavelCtrl.retryCount,
               delay);
    return 0;
}

int tavel_armRetry(int code, int type)
{
    int seconds = 0;
    timer_t timer = nullptr;
    int rc = getTimerIdForErrorCode(code, &seconds, &timer, type);
    if (rc == 0) {
        startTimer(seconds, timer);
    }
    tavel_statusRetryCount(g_tavelCtrl.retryCount);

    char result[64];
    tavel_resultText(code, result, sizeof(result));
    const char *what = type == TAVEL_TIMER_STATUS ? "status report" : "fetch";
    if (rc != 0) {
        TAVEL_STATUS(AgentState::Idle, -1, "%s %s: not retried; nothing is scheduled until a restart", what,
                     result);
        return rc;
    }
    AgentState wait = type == TAVEL_TIMER_STATUS ? AgentState::ReportRetryWait : AgentState::RetryWait;
    if (seconds <= 0) {
        // "setTimeout 0" (or a negative value) leaves the timer disarmed.
        TAVEL_STATUS(AgentState::Idle, -1, "%s %s: retry delay %d s disarms the timer; no retry follows",
                     what, result, seconds);
    } else if (tavel_retryRuleOf(code) == TAVEL_RETRY_LONG) {
        // Half a day or more reads as days; what "setTimeout" shortened, as minutes.
        bool days = seconds >= 43200;
        TAVEL_STATUS(wait, seconds,
                     "%s %s is not transient: the long wait of %d s (about %d %s; \"setTimeout\" changes it)",
                     what, result, seconds, days ? (seconds + 43200) / 86400 : (seconds + 30) / 60,
                     days ? "day(s)" : "min");
    } else {
        TAVEL_STATUS(wait, seconds, "%s %s: back-off retry %d", what, result, g_tavelCtrl.retryCount);
    }
    return rc;
}
