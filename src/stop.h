/*
 * The stop request (a stop signal from the service manager or an operator)
 * and the waits that end on it.  Below everything that waits: the process
 * and file helpers use these, and the exit (main_exit.cpp) carries the stop
 * out.
 */
#ifndef TAVEL_STOP_H
#define TAVEL_STOP_H

#include <time.h>

#include <type_traits>

/* The signalfd of the stop signals, made by the timer thread's set-up
 * (non-blocking); -1 before it, as in unit tests. */
void tavel_setStopSignalFd(int fd);
int tavel_stopSignalFd(void);
/* 1 once a stop signal was seen; reads a pending one without blocking. */
int tavel_stopRequested(void);
/* The stop signal's number, 0 when none was seen. */
int tavel_stopSignalNumber(void);
/* Marks the calling thread as the one carrying the stop out: its own waits
 * no longer end on the stop they serve. */
void tavel_stopCarryOut(void);
/* 1 when a stop is requested that the calling thread is not itself carrying
 * out: every wait of the agent ends early on it. */
int tavel_stopPending(void);
/* An eventfd that becomes readable, for good, at the stop: one more
 * descriptor for a poll() that must end on it.  -1 if none could be made. */
int tavel_stopKickFd(void);
/* Called once, from the thread that first sees the stop, to wake waits that
 * sleep on something else than a descriptor (a condition variable).  One
 * hook: the exit's wait for transfers in flight. */
void tavel_setStopWake(void (*wake)(void));
/* Polls ready() (every millisecond at first, every 50 ms at most) until it
 * holds, limitMs real milliseconds have passed, or a stop is pending: 0,
 * ETIMEDOUT or ECANCELED.  For what has no descriptor to wait on: a child's
 * end, an advisory lock.  The caller keeps whatever locks it holds. */
int tavel_waitUntil(bool (*ready)(void *context), void *context, int limitMs);
/* Waits until fd is readable (or hung up), limitMs real milliseconds have
 * passed, or a stop is pending: 0, ETIMEDOUT or ECANCELED (another errno if
 * poll fails).  For what has a descriptor to wait on: a child's pidfd. */
int tavel_waitReadable(int fd, int limitMs);
template <typename Ready> int tavel_waitUntil(Ready &&ready, int limitMs)
{
    using R = typename std::remove_reference<Ready>::type;
    return tavel_waitUntil([](void *c) { return static_cast<bool>((*static_cast<R *>(c))()); },
                           const_cast<void *>(static_cast<const void *>(&ready)), limitMs);
}

/* Monotonic time for deadlines. */
struct timespec tavel_monotonicNow(void);
struct timespec tavel_addSpan(struct timespec t, struct timespec span);
/* Milliseconds from now to deadline, 0 when past (a partial millisecond
 * left counts as 1), capped for poll(). */
int tavel_msUntil(struct timespec deadline);

#endif
