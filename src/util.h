/*
 * Small helpers shared by every module of the agent: the log prefix, the
 * device file-system root, the time seam, the agent lock and bounded text
 * copies.  Commands live in process.h, device files in files.h.
 */
#ifndef TAVEL_UTIL_H
#define TAVEL_UTIL_H

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <memory>

#include "dml.h"
#include "platform_log.h"

/* The source file's name without its directories.  GCC 12 and clang 9 have
 * it built in; older vendor compilers get the same text from __FILE__, cut
 * at its last slash (the strings are folded at compile time either way). */
#ifdef __FILE_NAME__
#define TAVEL_FILE __FILE_NAME__
#else
constexpr const char *tavel_baseName(const char *path)
{
    const char *base = path;
    for (const char *p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}
#define TAVEL_FILE tavel_baseName(__FILE__)
#endif

/* Every agent log line starts with the function, the source file and the
 * line: "tavel: [func file:line] ".  The prefix is put in front at run time
 * rather than spelled into each of the two hundred formats (18 bytes each,
 * nearly 4 KB of the armhf binary), and the finished line goes to the
 * platform log as one "%s" argument. */
typedef void (*TavelLogFn)(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void tavel_logTo(TavelLogFn logFn, const char *func, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
void tavel_vlogTo(TavelLogFn logFn, const char *func, const char *file, int line, const char *fmt, va_list ap)
    __attribute__((format(printf, 5, 0)));
void tavel_logDebug(const char *func, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
void tavel_logNotice(const char *func, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
void tavel_logError(const char *func, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
#define TAVEL_LOGD(fmt, ...) tavel_logDebug(__func__, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)
#define TAVEL_LOGN(fmt, ...) tavel_logNotice(__func__, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)
#define TAVEL_LOGE(fmt, ...) tavel_logError(__func__, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)
/* Same, for the lines that must name another function than the caller (a
 * helper logging for the accessor that called it, a transfer for the request
 * it performs).  TAVEL_LOG_AS takes the log function itself, for a level
 * chosen at run time. */
#define TAVEL_LOG_AS(logFn, func, fmt, ...) tavel_logTo(logFn, func, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)
#define TAVEL_LOGD_AS(func, fmt, ...) tavel_logDebug(func, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)
#define TAVEL_LOGN_AS(func, fmt, ...) tavel_logNotice(func, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)
#define TAVEL_LOGE_AS(func, fmt, ...) tavel_logError(func, TAVEL_FILE, __LINE__, fmt, ##__VA_ARGS__)

/* Time-of-day helper of the util module: reads hour, minute and second from
 * the text after the first 'T'; outputs are left unchanged when absent. */
void parseTimetoHourMinSec(const char *text, int *hour, int *minute, int *second);

/* ---- device file-system root (TAVEL_ROOT) ---- */

/* Longest TAVEL_ROOT accepted; longer ones are refused like bad characters. */
#define TAVEL_ROOT_MAX 256

/* Reads TAVEL_ROOT once.  Returns 0 when it is unset, empty, or an absolute
 * path made only of A-Za-z0-9/._- and at most TAVEL_ROOT_MAX long; -1
 * otherwise (a relative root would make every device path depend on the
 * working directory, and one like "-r" would read as an option). */
int tavel_rootInit(void);
/* The accepted prefix ("" when unset) and its length. */
const char *tavel_root(void);
size_t tavel_rootLen(void);

/* A device path with the root in front, held in a buffer of its own. */
class DevicePath
{
public:
    explicit DevicePath(const char *devicePath);
    const char *c_str() const { return buf_; }

private:
    char buf_[TAVEL_ROOT_MAX + 1024];
};

/* access(path, F_OK) on the prefixed device path: 0 present, -1 absent. */
int tavel_access(const char *devicePath);

/* Frees malloc'd memory at the end of a scope (std::unique_ptr<T, FreeDeleter>). */
struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};
/* ---- threads and memory ---- */

/* Starts a thread of the agent with a stack sized to what its steps use:
 * measured at about 20 KiB at the deepest (a TLS handshake, the largest
 * platform records), so 256 KiB leaves ample headroom while reserving a
 * thirtieth of the C library's default.  pthread_create's result. */
int tavel_startThread(pthread_t *thread, void *(*run)(void *));

/* Gives freed heap memory back to the system: called once the received
 * settings are applied and once the status is reported, before the agent
 * may idle for days on a device with little memory. */
void tavel_releaseMemory(void);

/* ---- bounded text ---- */

/* A text that may be null, as "" (for copies, comparisons and log values). */
inline const char *tavel_text(const char *s)
{
    return s != nullptr ? s : "";
}

/* Copies at most maxChars characters of src (fewer when dst is smaller),
 * always terminates dst and fills the rest of dst with zero bytes. */
void tavel_copyText(char *dst, size_t dstSize, const char *src, size_t maxChars);

/* ---- time seam ---- */

/* TAVEL_TIME_SCALE: a positive integer dividing every sleep and timer delay
 * (default 1).  Logged and computed delays keep their nominal seconds. */
unsigned tavel_timeScale(void);
/* Real-time length of a nominal delay. */
struct timespec tavel_scaledDelay(int seconds);
/* Sleeps a nominal number of seconds, giving the agent lock up meanwhile when
 * the calling thread holds it.  A stop request ends the sleep: the agent then
 * stops (main_exit.cpp) and the call does not return. */
void tavel_sleep(unsigned seconds);

/* ---- agent lock ---- */

/* One lock guards the agent's state records.  It is held by whichever thread
 * runs a step (start-up, a timer expiry, a bus handler) and re-entered freely
 * by that thread; tavel_sleep() releases it for the duration of a sleep. */
void tavel_agentLock(void);
void tavel_agentUnlock(void);
/* Takes the lock when it is free (or already this thread's): 1, else 0. */
int tavel_agentTryLock(void);
/* Releases the lock completely and returns the depth to restore later. */
int tavel_agentLockRelease(void);
void tavel_agentLockRestore(int depth);

class AgentLockGuard
{
public:
    AgentLockGuard() { tavel_agentLock(); }
    ~AgentLockGuard() { tavel_agentUnlock(); }
    AgentLockGuard(const AgentLockGuard &) = delete;
    AgentLockGuard &operator=(const AgentLockGuard &) = delete;
};

/* Releases the agent lock for a scope (a blocking wait that must not hold
 * other threads' steps back) and takes it again at the end. */
class AgentLockRelease
{
public:
    AgentLockRelease() : depth_(tavel_agentLockRelease()) {}
    ~AgentLockRelease() { tavel_agentLockRestore(depth_); }
    AgentLockRelease(const AgentLockRelease &) = delete;
    AgentLockRelease &operator=(const AgentLockRelease &) = delete;

private:
    int depth_;
};

#endif
