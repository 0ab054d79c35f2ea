#include "util.h"
#include "logtext.h"

#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

void parseTimetoHourMinSec(const char *text, int *hour, int *minute, int *second)
{
    char buf[64] = {0};
    if (text == nullptr) {
        return;
    }
    tavel_copyText(buf, sizeof(buf), text, sizeof(buf) - 1);
    char *t = strchr(buf, 'T');
    if (t == nullptr) {
        return;
    }
    TAVEL_LOGN("buf :%s\n", LogText<sizeof(buf)>(t, sizeof(buf) - static_cast<size_t>(t - buf)).c_str());
    char *save = nullptr;
    int *outs[3] = {hour, minute, second};
    char *tok = strtok_r(t + 1, ":", &save);
    for (int i = 0; i < 3 && tok != nullptr; ++i) {
        if (outs[i] != nullptr) {
            *outs[i] = atoi(tok);
        }
        tok = strtok_r(nullptr, ":", &save);
    }
}

/* ---- log lines ---- */

namespace
{

/* Longest function or file name the prefix takes whole: far beyond any of
 * the agent's, and it keeps the prefix well inside the line buffer below. */
constexpr size_t kLogNameMax = 96;

size_t putName(char *out, const char *name)
{
    size_t n = strnlen(name, kLogNameMax);
    memcpy(out, name, n);
    return n;
}

/* "tavel: [func file:line] " into out, which holds at least
 * 2 * kLogNameMax + 32 bytes; returns its length (no terminator written). */
size_t putPrefix(char *out, const char *func, const char *file, int line)
{
    static const char kHead[] = "tavel: [";
    size_t n = sizeof(kHead) - 1;
    memcpy(out, kHead, n);
    n += putName(out + n, func);
    out[n++] = ' ';
    n += putName(out + n, file);
    out[n++] = ':';
    char digits[12];
    size_t d = 0;
    // A source line number: never negative.
    unsigned int u = static_cast<unsigned int>(line);
    do {
        digits[d++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    while (d > 0) {
        out[n++] = digits[--d];
    }
    out[n++] = ']';
    out[n++] = ' ';
    return n;
}

} // namespace

void tavel_vlogTo(TavelLogFn logFn, const char *func, const char *file, int line, const char *fmt, va_list ap)
{
    // Every line of an onboarding fits here (the longest are about 220
    // bytes); a longer one (a reply body, a header trace) is formatted a
    // second time into a heap block of its exact size.  Small on purpose:
    // the deepest stack of the main thread goes through this frame, and
    // every page of that stack stays dirty for the life of the agent.
    char small[256];
    static_assert(sizeof(small) > 2 * kLogNameMax + 32, "the prefix always fits the line buffer");
    size_t head = putPrefix(small, func, file, line);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(small + head, sizeof(small) - head, fmt, copy);
    va_end(copy);
    if (n < 0) {
        logFn("%s", "");
        return;
    }
    size_t len = head + static_cast<size_t>(n);
    if (len < sizeof(small)) {
        logFn("%s", small);
        return;
    }
    std::unique_ptr<char[]> big(new (std::nothrow) char[len + 1]);
    if (!big) {
        return; // a record that cannot be written is dropped, as the platform log does
    }
    memcpy(big.get(), small, head);
    vsnprintf(big.get() + head, len + 1 - head, fmt, ap);
    logFn("%s", big.get());
}

void tavel_logTo(TavelLogFn logFn, const char *func, const char *file, int line, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    tavel_vlogTo(logFn, func, file, line, fmt, ap);
    va_end(ap);
}

#define TAVEL_LOG_LEVEL(name, logFn)                                                                         \
    void name(const char *func, const char *file, int line, const char *fmt, ...)                            \
    {                                                                                                        \
        va_list ap;                                                                                          \
        va_start(ap, fmt);                                                                                   \
        tavel_vlogTo(logFn, func, file, line, fmt, ap);                                                      \
        va_end(ap);                                                                                          \
    }
TAVEL_LOG_LEVEL(tavel_logDebug, dmlLogDebug)
TAVEL_LOG_LEVEL(tavel_logNotice, dmlLogNotice)
TAVEL_LOG_LEVEL(tavel_logError, dmlLogError)
#undef TAVEL_LOG_LEVEL

/* ---- root ---- */

namespace
{
char g_root[TAVEL_ROOT_MAX + 1];
size_t g_rootLen;
pthread_once_t g_rootOnce = PTHREAD_ONCE_INIT;
int g_rootResult;

bool rootCharOk(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '.' || c == '_' || c == '-';
}

void readRoot()
{
    const char *env = getenv("TAVEL_ROOT");
    if (env == nullptr || env[0] == '\0') {
        return;
    }
    size_t len = strlen(env);
    if (len > TAVEL_ROOT_MAX || env[0] != '/') {
        g_rootResult = -1;
        return;
    }
    for (size_t i = 0; i < len; ++i) {
        if (!rootCharOk(env[i])) {
            g_rootResult = -1;
            return;
        }
    }
    memcpy(g_root, env, len + 1);
    g_rootLen = len;
}
} // namespace

int tavel_rootInit(void)
{
    pthread_once(&g_rootOnce, readRoot);
    return g_rootResult;
}

const char *tavel_root(void)
{
    tavel_rootInit();
    return g_root;
}

size_t tavel_rootLen(void)
{
    tavel_rootInit();
    return g_rootLen;
}

DevicePath::DevicePath(const char *devicePath)
{
    snprintf(buf_, sizeof(buf_), "%s%s", tavel_root(), devicePath != nullptr ? devicePath : "");
}

int tavel_access(const char *devicePath)
{
    return access(DevicePath(devicePath).c_str(), F_OK);
}

namespace
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAVEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TAVEL_SANITIZED 1
#endif
#endif
#ifdef TAVEL_SANITIZED
// The sanitizers' instrumentation needs many times the stack of a plain
// build; their builds keep the C library's default.
constexpr size_t kThreadStack = 0;
#else
constexpr size_t kThreadStack = size_t{256} * 1024;
#endif
} // namespace

int tavel_startThread(pthread_t *thread, void *(*run)(void *))
{
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) {
        return rc;
    }
    if (kThreadStack != 0) {
        pthread_attr_setstacksize(&attr, kThreadStack);
    }
    rc = pthread_create(thread, &attr, run, nullptr);
    pthread_attr_destroy(&attr);
    return rc;
}

void tavel_releaseMemory(void)
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void tavel_copyText(char *dst, size_t dstSize, const char *src, size_t maxChars)
{
    if (dst == nullptr || dstSize == 0) {
        return;
    }
    size_t limit = dstSize - 1 < maxChars ? dstSize - 1 : maxChars;
    size_t n = src != nullptr ? strnlen(src, limit) : 0;
    if (n > 0) {
        memcpy(dst, src, n);
    }
    memset(dst + n, 0, dstSize - n);
}

/* ---- time seam ---- */

namespace
{
unsigned g_scale = 1;
pthread_once_t g_scaleOnce = PTHREAD_ONCE_INIT;

void readScale()
{
    const char *env = getenv("TAVEL_TIME_SCALE");
    if (env == nullptr || env[0] == '\0') {
        return;
    }
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(env, &end, 10);
    if (errno == 0 && end != env && *end == '\0' && v >= 1 && v <= 1000000000UL && env[0] != '-') {
        g_scale = static_cast<unsigned>(v);
    }
}
} // namespace

unsigned tavel_timeScale(void)
{
    pthread_once(&g_scaleOnce, readScale);
    return g_scale;
}

struct timespec tavel_scaledDelay(int seconds)
{
    struct timespec ts = {0, 0};
    if (seconds <= 0) {
        return ts;
    }
    unsigned long long ns = static_cast<unsigned long long>(seconds) * 1000000000ULL / tavel_timeScale();
    if (ns == 0) {
        ns = 1;
    }
    ts.tv_sec = static_cast<time_t>(ns / 1000000000ULL);
    ts.tv_nsec = static_cast<long>(ns % 1000000000ULL);
    return ts;
}

/* ---- agent lock ---- */

namespace
{
pthread_mutex_t g_agentMutex = PTHREAD_MUTEX_INITIALIZER;
thread_local int t_agentDepth = 0;
} // namespace

namespace
{
// The data-model layer may keep what it read for the duration of a step; it
// is let go whenever the agent gives its lock up, so nothing of it stays
// while the agent waits.  A platform without the hook leaves it undefined.
void releaseStepCaches()
{
    if (dml_releaseCache != nullptr) {
        dml_releaseCache();
    }
}
} // namespace

void tavel_agentLock(void)
{
    if (t_agentDepth++ == 0) {
        pthread_mutex_lock(&g_agentMutex);
    }
}

void tavel_agentUnlock(void)
{
    if (t_agentDepth > 0 && --t_agentDepth == 0) {
        releaseStepCaches();
        pthread_mutex_unlock(&g_agentMutex);
    }
}

int tavel_agentTryLock(void)
{
    if (t_agentDepth > 0) {
        ++t_agentDepth;
        return 1;
    }
    if (pthread_mutex_trylock(&g_agentMutex) != 0) {
        return 0;
    }
    t_agentDepth = 1;
    return 1;
}

int tavel_agentLockRelease(void)
{
    int depth = t_agentDepth;
    if (depth > 0) {
        t_agentDepth = 0;
        releaseStepCaches();
        pthread_mutex_unlock(&g_agentMutex);
    }
    return depth;
}

void tavel_agentLockRestore(int depth)
{
    if (depth > 0) {
        pthread_mutex_lock(&g_agentMutex);
        t_agentDepth = depth;
    }
}
