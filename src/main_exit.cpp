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
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include "agent_status.h"
#include "cfgm_intf.h"
#include "main.h"
#include "process.h"
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

// How long any exit waits for a transfer in flight before it takes the
// rules away under it.  On a stop, transfers notice it within a second, so
// this is only reached when the network stack itself hangs; a normal exit
// gives a status upload on the bus thread this long to finish.
constexpr time_t kTransferGraceSeconds = 10;
// The stop's own steps, so that the whole stop stays within its budget
// (docs/waits.md): the agent lock from a step that ends its waits on the
// stop, and each iptables run that removes a rule.
constexpr int kStopLockLimitMs = 5000;
constexpr int kStopCommandLimitMs = 5000;

// Set on the firewall thread: it owns no agent state, so at a stop it just
// ends, and the exit that joins it goes on.
thread_local bool t_firewallThread = false;

pthread_mutex_t g_transferMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_transferCond;
pthread_once_t g_transferOnce = PTHREAD_ONCE_INIT;
int g_transfers = 0;

// The exit's wait for transfers ends at once on a stop, not at its next
// look a second later.
void wakeTransferWait()
{
    pthread_mutex_lock(&g_transferMutex);
    pthread_cond_broadcast(&g_transferCond);
    pthread_mutex_unlock(&g_transferMutex);
}

void initTransferCond()
{
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&g_transferCond, &attr);
    pthread_condattr_destroy(&attr);
    tavel_setStopWake(wakeTransferWait);
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

// Waits, the agent lock held, until no transfer is in flight, at most
// kTransferGraceSeconds; a transfer still running then is abandoned (the
// exit goes on under it).  Outside a stop, a stop requested meanwhile is
// carried out, looked for every second.
void waitForTransfers()
{
    pthread_once(&g_transferOnce, initTransferCond);
    const struct timespec end = tavel_addSpan(tavel_monotonicNow(), timespec{kTransferGraceSeconds, 0});
    pthread_mutex_lock(&g_transferMutex);
    while (g_transfers > 0) {
        struct timespec next = tavel_addSpan(tavel_monotonicNow(), timespec{1, 0});
        bool last = tavel_msUntil(next) >= tavel_msUntil(end);
        if (pthread_cond_timedwait(&g_transferCond, &g_transferMutex, last ? &end : &next) != ETIMEDOUT) {
            continue;
        }
        if (last) {
            TAVEL_LOGE("%d transfer(s) still in flight after %d s: abandoned, exiting regardless\n",
                       g_transfers, static_cast<int>(kTransferGraceSeconds));
            break;
        }
        pthread_mutex_unlock(&g_transferMutex);
        tavel_stopPoint();
        pthread_mutex_lock(&g_transferMutex);
    }
    pthread_mutex_unlock(&g_transferMutex);
}

// Every exit path: the rules go only once no transfer needs them any more.
void releaseFirewall(int commandLimitMs)
{
    waitForTransfers();
    // Never before the insertions, or a rule would outlive the agent.
    tavel_awaitFirewallRules();
    for (const char *const *argv : {kFwDeleteLevel, kFwDeleteWan}) {
        tavel_spawn(argv, commandLimitMs);
        tavel_stopPoint();
    }
    tavel_statusFirewall(0);
}

[[noreturn]] void stopAgent()
{
    tavel_stopCarryOut();
    int signo = tavel_stopSignalNumber();
    TAVEL_LOGE("stop signal %d received: removing the firewall rules and exiting\n", signo);
    TAVEL_STATUS(AgentState::Exiting, -1, "stopped by signal %d", signo);
    // Every other step ends its waits on the stop and gives the lock up at
    // its next stop point; one caught in a wait the agent cannot end (a
    // platform call) is left behind after a bounded time.
    bool locked = tavel_waitUntil([] { return tavel_agentTryLock() != 0; }, kStopLockLimitMs) == 0;
    if (locked) {
        tavel_rollbackMgmtServerObj();
    } else {
        TAVEL_LOGE("a step still holds the agent after %d ms: stopping without it\n", kStopLockLimitMs);
    }
    releaseFirewall(kStopCommandLimitMs);
    if (locked && g_timerAliveFlag != 0) {
        TAVEL_LOGN("parked country code left in %s for the next start\n", TAVEL_COUNTRY_CODE_FILE);
    }
    TAVEL_LOGE("stopped by signal %d !!!!\n", signo);
    if (!locked) {
        // The step still runs: the process must not tear down its statics
        // (exit's destructors) under it.
        fflush(stdout);
        _exit(0);
    }
    tavel_exitProcess();
}

// A short-lived thread on a stack mapped for it and unmapped once it is
// joined: the C library would keep the stack of a joined thread of its own
// making cached, dirty pages included, for the life of the process.  No
// destructor: an instance is process-wide, and exit() must not unmap a stack.
class TransientThread
{
public:
    // 0, or the error that kept the thread from starting.
    int start(void *(*run)(void *))
    {
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void *map = mmap(nullptr, kStack + page, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (map == MAP_FAILED) {
            return errno;
        }
        pthread_attr_t attr;
        int rc = mprotect(map, page, PROT_NONE) == 0 ? 0 : errno; // guard page below
        if (rc == 0) {
            rc = pthread_attr_init(&attr);
        }
        if (rc == 0) {
            rc = pthread_attr_setstack(&attr, static_cast<char *>(map) + page, kStack);
            if (rc == 0) {
                rc = pthread_create(&thread_, &attr, run, nullptr);
            }
            pthread_attr_destroy(&attr);
        }
        if (rc != 0) {
            munmap(map, kStack + page);
            // A C library or a sanitizer runtime may refuse a stack of this
            // size: the library's own stack costs memory, not correctness.
            map_ = nullptr;
            return pthread_create(&thread_, nullptr, run, nullptr);
        }
        map_ = map;
        mapSize_ = kStack + page;
        return 0;
    }

    void join()
    {
        pthread_join(thread_, nullptr);
        if (map_ != nullptr) {
            munmap(map_, mapSize_);
            map_ = nullptr;
        }
    }

private:
    static constexpr size_t kStack = size_t{128} * 1024;
    pthread_t thread_{};
    void *map_ = nullptr;
    size_t mapSize_ = 0;
};

// The rules' replacement runs on a thread of its own, so the four commands
// overlap with the rest of start-up and the GET's connection set-up rather
// than coming before them.
pthread_mutex_t g_fwMutex = PTHREAD_MUTEX_INITIALIZER;
TransientThread g_fwThread;
bool g_fwRunning = false;

void *replaceFirewallRules(void * /*unused*/)
{
    // Deleted first, so a restart never stacks a second copy of a rule.
    for (const char *const *argv : {kFwDeleteLevel, kFwDeleteWan, kFwInsertWan, kFwInsertLevel}) {
        if (tavel_stopPending() != 0) {
            break;
        }
        tavel_spawn(argv);
        tavel_stopPoint();
    }
    tavel_statusFirewall(1);
    return nullptr;
}

void *firewallThreadMain(void *unused)
{
    t_firewallThread = true;
    return replaceFirewallRules(unused);
}

} // namespace

void tavel_startFirewallRules(void)
{
    int rc = 0;
    pthread_mutex_lock(&g_fwMutex);
    if (!g_fwRunning) {
        rc = g_fwThread.start(firewallThreadMain);
        g_fwRunning = rc == 0;
    }
    pthread_mutex_unlock(&g_fwMutex);
    if (rc != 0) {
        // Not under the mutex: a stop in these commands parks this thread,
        // and the exit must still get past the mutex to remove the rules.
        TAVEL_LOGE("cannot start the firewall thread: %s; running the commands here\n", strerror(rc));
        replaceFirewallRules(nullptr);
    }
}

void tavel_awaitFirewallRules(void)
{
    pthread_mutex_lock(&g_fwMutex);
    if (g_fwRunning) {
        g_fwThread.join();
        g_fwRunning = false;
    }
    pthread_mutex_unlock(&g_fwMutex);
}

void tavel_removeFirewallRules(void)
{
    releaseFirewall(TAVEL_COMMAND_LIMIT_MS);
}

void tavel_exitProcess(void)
{
    // Standard output only: fflush(NULL) would wait for the lock of every
    // stream, also one that a thread blocked in a read holds.
    fflush(stdout);
#ifdef TAVEL_SANITIZED
    exit(0);
#else
    // Past the streams there is nothing for the libraries' exit handlers to
    // do that the kernel does not do anyway: the TLS library's tear-down alone
    // was 1.5 M instructions at every end of the agent, and it would run while
    // the bus and timer threads may still be inside those very libraries.
    _exit(0);
#endif
}

void tavel_stopPoint(void)
{
    if (tavel_stopPending() == 0) {
        return;
    }
    if (tavel_onTimerThread() != 0) {
        stopAgent();
    }
    if (t_firewallThread) {
        return;
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
    int kickFd = tavel_stopKickFd();
    bool forever = span.tv_sec < 0;
    struct timespec deadline = forever ? timespec{0, 0} : tavel_addSpan(tavel_monotonicNow(), span);
    int timerFd = timerExpiries != 0 && tavel_onTimerThread() != 0 ? tavel_timerSignalFd() : -1;
    for (;;) {
        struct pollfd fds[3] = {{stopFd, POLLIN, 0}, {kickFd, POLLIN, 0}, {timerFd, POLLIN, 0}};
        int timeout = forever ? -1 : tavel_msUntil(deadline);
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
        if (!forever && tavel_msUntil(deadline) == 0) {
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
    // A status upload may run on the bus thread with the lock given up: the
    // rules it needs stay until it ends (or is abandoned).
    tavel_removeFirewallRules();
    if (g_timerAliveFlag == 0) {
        forEachHeapField(g_serverData, [](const ReplyField &f, char *&field) {
            if (f.freedAtExit) {
                free(field);
                field = nullptr;
            }
        });
        TAVEL_LOGE("exitTavel !!!!");
        tavel_exitProcess();
    }
    TAVEL_LOGE("Not exiting Tavle, as timer is running !!!!");
    TAVEL_STATUS(AgentState::WaitingCountryCode, -1,
                 "exit refused: a parked country code keeps the agent until it is stopped");
    // A timer expiry ends the wait early, as a signal cut the sleep short on
    // the device, so a parked country code is still applied meanwhile.
    tavel_wait(tavel_scaledDelay(1000000), 1);
}
