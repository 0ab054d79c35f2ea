// Exit, stop and waits: the one way the agent ends.
//
// A normal exit (exitTavel) removes the firewall rules and ends the process
// once no transfer is in flight.  A stop signal from the service manager or
// an operator ends it the same way from any state: the timer thread takes the
// signal, every other thread gives the agent up at its next wait or at the end
// of its transfer, a management-account write caught between its two halves is
// undone, and the process exits with status 0.  Nothing here runs in signal
// context: the signals only ever arrive through signalfds.
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "agent_status.h"
#include "cfgm_intf.h"
#include "main.h"
#include "reply_fields.h"
#include "util.h"

namespace
{

// The firewall rules, as argument vectors: a device's iptables sees exactly
// the words a shell would have split the command lines into.
#define TAVEL_FW_RULE(op, chain)                                                                             \
    {                                                                                                        \
        "iptables", op, chain, "-p", "tcp", "-m", "tcp", "--sport", "443", "--dport", TAVEL_FW_DPORTS, "-j", \
            "ACCEPT", nullptr                                                                                \
    }
const char *const kFwDeleteLevel[] = TAVEL_FW_RULE("-D", "INPUT_FW_LEVEL");
const char *const kFwDeleteWan[] = TAVEL_FW_RULE("-D", "INPUT_WAN_REMOTE_ACCESS");
const char *const kFwInsertWan[] = TAVEL_FW_RULE("-I", "INPUT_WAN_REMOTE_ACCESS");
const char *const kFwInsertLevel[] = TAVEL_FW_RULE("-I", "INPUT_FW_LEVEL");
#undef TAVEL_FW_RULE

// How long a stop waits for a transfer to notice it and end.  Transfers check
// for a stop at least once a second, so this is only reached when the
// network stack itself hangs; the exit then goes ahead regardless.
constexpr time_t kStopTransferWaitSeconds = 10;

std::atomic<int> g_stopSignal{0};
int g_kickFd = -1;
pthread_once_t g_kickOnce = PTHREAD_ONCE_INIT;

pthread_mutex_t g_transferMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_transferCond;
pthread_once_t g_transferOnce = PTHREAD_ONCE_INIT;
int g_transfers = 0;

void makeKickFd()
{
    g_kickFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void initTransferCond()
{
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&g_transferCond, &attr);
    pthread_condattr_destroy(&attr);
}

// Wakes every thread that waits in tavel_wait(), and the exit's wait for
// transfers.  The eventfd is never drained: a stop is for good.
void noteStop(int signo)
{
    int expected = 0;
    if (!g_stopSignal.compare_exchange_strong(expected, signo)) {
        return;
    }
    pthread_once(&g_kickOnce, makeKickFd);
    if (g_kickFd >= 0) {
        uint64_t one = 1;
        ssize_t n = write(g_kickFd, &one, sizeof(one));
        (void)n;
    }
    pthread_once(&g_transferOnce, initTransferCond);
    pthread_mutex_lock(&g_transferMutex);
    pthread_cond_broadcast(&g_transferCond);
    pthread_mutex_unlock(&g_transferMutex);
}

struct timespec monotonicNow()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

struct timespec addSpan(struct timespec t, struct timespec span)
{
    t.tv_sec += span.tv_sec;
    t.tv_nsec += span.tv_nsec;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

// Milliseconds from now to deadline, 0 when past, capped for poll().
int msUntil(struct timespec deadline)
{
    struct timespec now = monotonicNow();
    long long ms = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000LL +
                   (deadline.tv_nsec - now.tv_nsec) / 1000000L;
    if (ms <= 0) {
        // Round a partial millisecond up, so a short wait is not cut to none.
        return deadline.tv_sec > now.tv_sec ||
                       (deadline.tv_sec == now.tv_sec && deadline.tv_nsec > now.tv_nsec)
                   ? 1
                   : 0;
    }
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Reads one queued timer expiry: true with the timer's value in *value,
// false when none was read.
bool readExpiry(void **value)
{
    struct signalfd_siginfo si;
    ssize_t n = read(tavel_timerSignalFd(), &si, sizeof(si));
    if (n != static_cast<ssize_t>(sizeof(si)) || si.ssi_signo != TAVEL_TIMER_SIGNAL) {
        return false;
    }
    *value = reinterpret_cast<void *>(static_cast<uintptr_t>(si.ssi_ptr));
    return true;
}

// Waits, the agent lock held, until no transfer is in flight; with a limit,
// at most that long.  Without one, a stop requested meanwhile is carried out.
void waitForTransfers(const struct timespec *limit)
{
    pthread_once(&g_transferOnce, initTransferCond);
    struct timespec deadline = addSpan(monotonicNow(), limit != nullptr ? *limit : timespec{1, 0});
    pthread_mutex_lock(&g_transferMutex);
    while (g_transfers > 0) {
        int rc = pthread_cond_timedwait(&g_transferCond, &g_transferMutex, &deadline);
        if (rc == ETIMEDOUT) {
            if (limit != nullptr) {
                TAVEL_LOGE("%d transfer(s) still in flight; exiting regardless\n", g_transfers);
                break;
            }
            pthread_mutex_unlock(&g_transferMutex);
            tavel_stopPoint();
            pthread_mutex_lock(&g_transferMutex);
            deadline = addSpan(monotonicNow(), timespec{1, 0});
        }
    }
    pthread_mutex_unlock(&g_transferMutex);
}

[[noreturn]] void stopAgent()
{
    AgentLockGuard guard;
    int signo = g_stopSignal.load();
    TAVEL_LOGE("stop signal %d received: removing the firewall rules and exiting\n", signo);
    TAVEL_STATUS(AgentState::Exiting, -1, "stopped by signal %d", signo);
    tavel_rollbackMgmtServerObj();
    struct timespec limit = {kStopTransferWaitSeconds, 0};
    waitForTransfers(&limit);
    tavel_removeFirewallRules();
    if (g_timerAliveFlag != 0) {
        TAVEL_LOGN("parked country code left in %s for the next start\n", TAVEL_COUNTRY_CODE_FILE);
    }
    TAVEL_LOGE("stopped by signal %d !!!!\n", signo);
    fflush(stdout);
    exit(0);
}

} // namespace

void tavel_insertFirewallRules(void)
{
    // Deleted first, so a restart never stacks a second copy of a rule.
    for (const char *const *argv : {kFwDeleteLevel, kFwDeleteWan, kFwInsertWan, kFwInsertLevel}) {
        tavel_spawn(argv);
    }
    tavel_statusFirewall(1);
}

void tavel_removeFirewallRules(void)
{
    tavel_spawn(kFwDeleteLevel);
    tavel_spawn(kFwDeleteWan);
    tavel_statusFirewall(0);
}

int tavel_stopRequested(void)
{
    if (g_stopSignal.load() != 0) {
        return 1;
    }
    int fd = tavel_stopSignalFd();
    if (fd < 0) {
        return 0;
    }
    struct signalfd_siginfo si;
    if (read(fd, &si, sizeof(si)) == static_cast<ssize_t>(sizeof(si))) {
        noteStop(static_cast<int>(si.ssi_signo));
        return 1;
    }
    return 0;
}

void tavel_stopPoint(void)
{
    if (tavel_stopRequested() == 0) {
        return;
    }
    if (tavel_onTimerThread() != 0) {
        stopAgent();
    }
    // The timer thread ends the process; this thread must not touch the
    // agent's state meanwhile, so it gives the lock up and waits for the end.
    tavel_agentLockRelease();
    for (;;) {
        pause();
    }
}

void tavel_transferBegin(void)
{
    pthread_once(&g_transferOnce, initTransferCond);
    pthread_mutex_lock(&g_transferMutex);
    ++g_transfers;
    pthread_mutex_unlock(&g_transferMutex);
}

void tavel_transferEnd(void)
{
    pthread_mutex_lock(&g_transferMutex);
    --g_transfers;
    pthread_cond_broadcast(&g_transferCond);
    pthread_mutex_unlock(&g_transferMutex);
}

void tavel_wait(struct timespec span, int timerExpiries)
{
    int stopFd = tavel_stopSignalFd();
    if (stopFd < 0) {
        // No timer thread (unit tests, or a failed start-up): a plain sleep.
        AgentLockRelease released;
        while (nanosleep(&span, &span) != 0 && errno == EINTR) {
        }
        return;
    }
    pthread_once(&g_kickOnce, makeKickFd);
    bool forever = span.tv_sec < 0;
    struct timespec deadline = forever ? timespec{0, 0} : addSpan(monotonicNow(), span);
    int timerFd = timerExpiries != 0 && tavel_onTimerThread() != 0 ? tavel_timerSignalFd() : -1;
    for (;;) {
        struct pollfd fds[3] = {{stopFd, POLLIN, 0}, {g_kickFd, POLLIN, 0}, {timerFd, POLLIN, 0}};
        int timeout = forever ? -1 : msUntil(deadline);
        int ready;
        {
            AgentLockRelease released;
            ready = poll(fds, 3, timeout);
        }
        tavel_stopPoint();
        void *value = nullptr;
        if (ready > 0 && (fds[2].revents & POLLIN) != 0 && readExpiry(&value)) {
            AgentLockGuard guard;
            tavel_stopPoint();
            dispatchTimerExpiry(value);
            return;
        }
        if (ready < 0 && errno != EINTR) {
            TAVEL_LOGE("wait failed: %s\n", strerror(errno));
            return;
        }
        if (!forever && msUntil(deadline) == 0) {
            return;
        }
    }
}

void tavel_sleep(unsigned seconds)
{
    int s = seconds > static_cast<unsigned>(INT_MAX) ? INT_MAX : static_cast<int>(seconds);
    tavel_stopPoint();
    tavel_wait(tavel_scaledDelay(s), 0);
}

void exitTavel(void)
{
    tavel_removeFirewallRules();
    if (g_timerAliveFlag == 0) {
        // A status upload may run on the bus thread with the lock given up;
        // exiting under it would pull the process away mid-transfer.
        waitForTransfers(nullptr);
        forEachHeapField(g_serverData, [](const ReplyField &f, char *&field) {
            if (f.freedAtExit) {
                free(field);
                field = nullptr;
            }
        });
        TAVEL_LOGE("exitTavel !!!!");
        fflush(stdout);
        exit(0);
    }
    TAVEL_LOGE("Not exiting Tavle, as timer is running !!!!");
    TAVEL_STATUS(AgentState::WaitingCountryCode, -1,
                 "exit refused: a parked country code keeps the agent until it is stopped");
    // A timer expiry ends the wait early, as a signal cut the sleep short on
    // the device, so a parked country code is still applied meanwhile.
    tavel_wait(tavel_scaledDelay(1000000), 1);
}
