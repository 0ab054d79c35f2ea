#include "util.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <climits>

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
    TAVEL_LOGN("buf :%s\n", t);
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
    if (len > TAVEL_ROOT_MAX) {
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

int tavel_runCommand(size_t baseSize, const char *fmt, ...)
{
    size_t size = baseSize + tavel_rootLen();
    char *cmd = static_cast<char *>(calloc(size, 1));
    if (cmd == nullptr) {
        return -1;
    }
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cmd, size, fmt, ap);
    va_end(ap);
    int rc = system(cmd);
    free(cmd);
    return rc;
}

int tavel_shellQuote(const char *text, char *out, size_t outSize)
{
    if (outSize == 0) {
        return -1;
    }
    size_t o = 0;
    auto put = [&](char c) {
        if (o + 1 >= outSize) {
            return false;
        }
        out[o++] = c;
        return true;
    };
    bool ok = put('\'');
    for (const char *p = text; ok && *p != '\0'; ++p) {
        if (*p == '\'') {
            ok = put('\'') && put('\\') && put('\'') && put('\'');
        } else {
            ok = put(*p);
        }
    }
    ok = ok && put('\'');
    out[ok ? o : 0] = '\0';
    return ok ? 0 : -1;
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

void tavel_sleep(unsigned seconds)
{
    int s = seconds > static_cast<unsigned>(INT_MAX) ? INT_MAX : static_cast<int>(seconds);
    struct timespec left = tavel_scaledDelay(s);
    AgentLockRelease released;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

/* ---- agent lock ---- */

namespace
{
pthread_mutex_t g_agentMutex = PTHREAD_MUTEX_INITIALIZER;
thread_local int t_agentDepth = 0;
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
        pthread_mutex_unlock(&g_agentMutex);
    }
}

int tavel_agentLockDepth(void)
{
    return t_agentDepth;
}

int tavel_agentLockRelease(void)
{
    int depth = t_agentDepth;
    if (depth > 0) {
        t_agentDepth = 0;
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
