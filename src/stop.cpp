// The stop request and the waits that end on it.  Nothing here runs in
// signal context: the stop signals only ever arrive through a signalfd,
// which every wait polls or reads.
#include "stop.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>

namespace
{

// Set on the thread that carries a stop out: its own waits must not end on
// the stop they serve, nor run into a second stop.
thread_local bool t_carryingOutStop = false;

std::atomic<int> g_stopFd{-1};
std::atomic<int> g_stopSignal{0};
std::atomic<void (*)(void)> g_stopWake{nullptr};
int g_kickFd = -1;
pthread_once_t g_kickOnce = PTHREAD_ONCE_INIT;

void makeKickFd()
{
    g_kickFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

// Wakes every wait that polls the kick descriptor, and the hooked one.  The
// eventfd is never drained: a stop is for good.
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
    void (*wake)(void) = g_stopWake.load();
    if (wake != nullptr) {
        wake();
    }
}

} // namespace

void tavel_setStopSignalFd(int fd)
{
    g_stopFd.store(fd);
}

int tavel_stopSignalFd(void)
{
    return g_stopFd.load();
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

int tavel_stopSignalNumber(void)
{
    return g_stopSignal.load();
}

void tavel_stopCarryOut(void)
{
    t_carryingOutStop = true;
}

int tavel_stopPending(void)
{
    return !t_carryingOutStop && tavel_stopRequested() != 0 ? 1 : 0;
}

int tavel_stopKickFd(void)
{
    pthread_once(&g_kickOnce, makeKickFd);
    return g_kickFd;
}

void tavel_setStopWake(void (*wake)(void))
{
    g_stopWake.store(wake);
}

struct timespec tavel_monotonicNow(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

struct timespec tavel_addSpan(struct timespec t, struct timespec span)
{
    t.tv_sec += span.tv_sec;
    t.tv_nsec += span.tv_nsec;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

int tavel_msUntil(struct timespec deadline)
{
    struct timespec now = tavel_monotonicNow();
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

int tavel_waitReadable(int fd, int limitMs)
{
    const struct timespec end =
        tavel_addSpan(tavel_monotonicNow(), timespec{limitMs / 1000, (limitMs % 1000) * 1000000L});
    int kickFd = tavel_stopKickFd();
    for (;;) {
        // The thread carrying a stop out waits on fd alone: the stop it
        // serves would otherwise wake it again and again.
        bool stoppable = !t_carryingOutStop;
        struct pollfd fds[3] = {{fd, POLLIN, 0},
                                {stoppable ? tavel_stopSignalFd() : -1, POLLIN, 0},
                                {stoppable ? kickFd : -1, POLLIN, 0}};
        int ready = poll(fds, 3, tavel_msUntil(end));
        if (ready > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            return 0;
        }
        if (tavel_stopPending() != 0) {
            return ECANCELED;
        }
        if (ready < 0 && errno != EINTR) {
            return errno;
        }
        if (tavel_msUntil(end) == 0) {
            return ETIMEDOUT;
        }
    }
}

int tavel_waitUntil(bool (*ready)(void *context), void *context, int limitMs)
{
    const struct timespec end =
        tavel_addSpan(tavel_monotonicNow(), timespec{limitMs / 1000, (limitMs % 1000) * 1000000L});
    long pauseNs = 1000000L;
    for (;;) {
        if (ready(context)) {
            return 0;
        }
        if (tavel_stopPending() != 0) {
            return ECANCELED;
        }
        int left = tavel_msUntil(end);
        if (left == 0) {
            return ETIMEDOUT;
        }
        struct timespec pause = {0, left < pauseNs / 1000000L ? left * 1000000L : pauseNs};
        nanosleep(&pause, nullptr);
        pauseNs = pauseNs * 2 > 50000000L ? 50000000L : pauseNs * 2;
    }
}
