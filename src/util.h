/*
 * Small helpers shared by every module of the agent: the log prefix, the
 * device file-system root, the time seam, the agent lock, bounded text
 * copies and shell command lines.
 */
#ifndef TAVEL_UTIL_H
#define TAVEL_UTIL_H

#include <stddef.h>
#include <time.h>

#include "dml.h"
#include "platform_log.h"

/* Every agent log line starts with the function, the source file and the line. */
#define TAVEL_LOG_PREFIX "tavel: [%s %s:%d] "
#define TAVEL_LOGD(fmt, ...)                                                                                 \
    dmlLogDebug(TAVEL_LOG_PREFIX fmt, __func__, __FILE_NAME__, __LINE__, ##__VA_ARGS__)
#define TAVEL_LOGN(fmt, ...)                                                                                 \
    dmlLogNotice(TAVEL_LOG_PREFIX fmt, __func__, __FILE_NAME__, __LINE__, ##__VA_ARGS__)
#define TAVEL_LOGE(fmt, ...)                                                                                 \
    dmlLogError(TAVEL_LOG_PREFIX fmt, __func__, __FILE_NAME__, __LINE__, ##__VA_ARGS__)
/* Same, for the few lines that must name another function than the caller. */
#define TAVEL_LOGD_AS(func, fmt, ...)                                                                        \
    dmlLogDebug(TAVEL_LOG_PREFIX fmt, func, __FILE_NAME__, __LINE__, ##__VA_ARGS__)
#define TAVEL_LOGE_AS(func, fmt, ...)                                                                        \
    dmlLogError(TAVEL_LOG_PREFIX fmt, func, __FILE_NAME__, __LINE__, ##__VA_ARGS__)

/* Time-of-day helper of the util module: reads hour, minute and second from
 * the text after the first 'T'; outputs are left unchanged when absent. */
void parseTimetoHourMinSec(const char *text, int *hour, int *minute, int *second);

/* ---- device file-system root (TAVEL_ROOT) ---- */

/* Longest TAVEL_ROOT accepted; longer ones are refused like bad characters. */
#define TAVEL_ROOT_MAX 256

/* Reads TAVEL_ROOT once.  Returns 0 when it is unset, empty, or made only of
 * A-Za-z0-9/._- and at most TAVEL_ROOT_MAX long; -1 otherwise. */
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

/* Formats a shell command into a buffer of baseSize plus the root's length
 * (so prefixed paths never cut it), bounded like snprintf(buf, baseSize +
 * rootLen, ...), and runs it with system().  Returns system()'s result.
 * Only constant paths and quoted values may reach fmt's arguments. */
int tavel_runCommand(size_t baseSize, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/* Quotes text for a POSIX shell word ('...' with embedded quotes escaped).
 * Returns -1 when out is too small; out is always terminated. */
int tavel_shellQuote(const char *text, char *out, size_t outSize);

/* ---- bounded text ---- */

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
 * the calling thread holds it. */
void tavel_sleep(unsigned seconds);

/* ---- agent lock ---- */

/* One lock guards the agent's state records.  It is held by whichever thread
 * runs a step (start-up, a timer expiry, a bus handler) and re-entered freely
 * by that thread; tavel_sleep() releases it for the duration of a sleep. */
void tavel_agentLock(void);
void tavel_agentUnlock(void);
/* Depth held by the calling thread (0 when it does not hold the lock). */
int tavel_agentLockDepth(void);
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
