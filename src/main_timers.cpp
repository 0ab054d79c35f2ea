// Timers, retry back-off and exit.
//
// The four one-shot POSIX timers signal SIGUSR1 with the address of their own
// handle as the value, as on the device.  No work runs in signal context:
// SIGUSR1 stays blocked in every thread, and the timers direct it to one timer
// thread that takes each expiry from a signalfd and runs its step in normal
// context, one at a time, holding the agent lock.
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

#include "main.h"
#include "util.h"

namespace
{

int g_signalFd = -1;
pthread_t g_timerThread;
bool g_timerThreadStarted = false;
pid_t g_timerThreadTid = 0;
pthread_mutex_t g_startMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_startCond = PTHREAD_COND_INITIALIZER;

const char kFwDeleteLevel[] =
    "iptables -D INPUT_FW_LEVEL -p tcp -m tcp --sport 443 --dport " TAVEL_FW_DPORTS " -j ACCEPT";
const char kFwDeleteWan[] =
    "iptables -D INPUT_WAN_REMOTE_ACCESS -p tcp -m tcp --sport 443 --dport " TAVEL_FW_DPORTS " -j ACCEPT";

sigset_t timerSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, TAVEL_TIMER_SIGNAL);
    return set;
}

// Reads one queued expiry; returns its value, or nullptr when none was read.
bool readExpiry(void **value)
{
    struct signalfd_siginfo si;
    ssize_t n = read(g_signalFd, &si, sizeof(si));
    if (n != static_cast<ssize_t>(sizeof(si)) || si.ssi_signo != TAVEL_TIMER_SIGNAL) {
        return false;
    }
    *value = reinterpret_cast<void *>(static_cast<uintptr_t>(si.ssi_ptr));
    return true;
}

void *timerThreadMain(void *)
{
    pthread_mutex_lock(&g_startMutex);
    g_timerThreadTid = static_cast<pid_t>(syscall(SYS_gettid));
    pthread_cond_signal(&g_startCond);
    pthread_mutex_unlock(&g_startMutex);

    for (;;) {
        void *value = nullptr;
        if (!readExpiry(&value)) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            // Without a readable signalfd no timer step can run again; say so
            // once instead of spinning.
            TAVEL_LOGE("timer signal read failed: %s\n", strerror(errno));
            return nullptr;
        }
        AgentLockGuard guard;
        dispatchTimerExpiry(value);
    }
}

bool onTimerThread()
{
    return g_timerThreadStarted && pthread_equal(pthread_self(), g_timerThread);
}

void createTimer(timer_t *handle)
{
    struct sigevent sev;
    memset(&sev, 0, sizeof(sev));
    sev.sigev_notify = SIGEV_SIGNAL | SIGEV_THREAD_ID;
    sev.sigev_signo = TAVEL_TIMER_SIGNAL;
    sev.sigev_value.sival_ptr = handle;
    sev._sigev_un._tid = g_timerThreadTid;
    timer_create(CLOCK_REALTIME, &sev, handle);
}

// The sleep of a refused exit: a timer expiry ends it early, as a signal cut
// the sleep short on the device, so a parked country code is still applied
// while the agent refuses to exit.
void sleepUntilTimerOrTimeout(unsigned seconds)
{
    if (!onTimerThread()) {
        tavel_sleep(seconds);
        return;
    }
    struct timespec span = tavel_scaledDelay(static_cast<int>(seconds));
    long long ms = static_cast<long long>(span.tv_sec) * 1000 + span.tv_nsec / 1000000;
    int timeout = ms > INT32_MAX ? INT32_MAX : static_cast<int>(ms);
    struct pollfd pfd = {g_signalFd, POLLIN, 0};
    int ready;
    {
        AgentLockRelease released;
        ready = poll(&pfd, 1, timeout);
    }
    void *value = nullptr;
    if (ready > 0 && readExpiry(&value)) {
        dispatchTimerExpiry(value);
    }
}

} // namespace

void initTimerSig(void)
{
    TAVEL_LOGN("Establishing handler for signal %d\n", TAVEL_TIMER_SIGNAL);
    sigset_t set = timerSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    g_signalFd = signalfd(-1, &set, SFD_CLOEXEC);

    pthread_mutex_lock(&g_startMutex);
    if (g_signalFd >= 0 && pthread_create(&g_timerThread, nullptr, timerThreadMain, nullptr) == 0) {
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
    srand(static_cast<unsigned>(time(nullptr)));
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
    if (type == 1) {
        *timer = g_tavelCtrl.retryTimer;
    } else if (type == 2) {
        *timer = g_tavelCtrl.statusUpdateTimer;
    }
}

int getTimerIdForErrorCode(int code, int *seconds, timer_t *timer, int type)
{
    TAVEL_LOGD("getTimerIdForErrorCode: %d\n", code);
    int delay;
    switch (code) {
    case 0:
    case 110:
    case 503:
        g_tavelCtrl.retryCount = code == g_lastErrorCode ? g_tavelCtrl.retryCount + 1 : 1;
        delay = getRetryExpTimerValue();
        g_lastErrorCode = code;
        break;
    case 204:
    case 400:
    case 401:
    case 403:
    case 404:
    case 500: {
        // Wrap like the device's 32-bit arithmetic if an operator set a huge
        // base with "setTimeout", instead of overflowing.
        uint32_t sum = static_cast<uint32_t>(g_retryTimeout) + static_cast<uint32_t>(getRandomJitter(2));
        *seconds = static_cast<int32_t>(sum);
        g_lastErrorCode = code;
        getTimerByType(type, timer);
        return 0;
    }
    case TAVEL_RC_TRANSFER_FAILED:
        g_tavelCtrl.retryCount = 2;
        delay = getRetryExpTimerValue();
        g_lastErrorCode = code;
        break;
    case TAVEL_RC_TZ_UNAVAILABLE:
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

void exitTavel(void)
{
    tavel_runCommand(sizeof(kFwDeleteLevel), "%s", kFwDeleteLevel);
    tavel_runCommand(sizeof(kFwDeleteWan), "%s", kFwDeleteWan);
    if (g_timerAliveFlag == 0) {
        char **owned[] = {&g_serverData.mgmtUrl, &g_serverData.cdpusername, &g_serverData.cdppassword,
                          &g_serverData.operdesc, &g_serverData.subnetdesc};
        for (char **field : owned) {
            free(*field);
            *field = nullptr;
        }
        TAVEL_LOGE("exitTavel !!!!");
        fflush(stdout);
        exit(0);
    }
    TAVEL_LOGE("Not exiting Tavle, as timer is running !!!!");
    sleepUntilTimerOrTimeout(1000000);
}
