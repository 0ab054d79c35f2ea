/* LD_PRELOAD shim that moves the wall clock of one program, not of its
 * libraries (so certificates are still checked against today):
 * TAVEL_CLOCK_SHIFT_FILE=FILE holds seconds (may be negative) added to the
 * realtime clock as the program's own code reads it, read again on every
 * read so a test can set the clock as NTP would; a missing file adds nothing.
 *
 * On a 32-bit target the program calls the 64-bit entry points
 * (__clock_gettime64, __time64, __gettimeofday64) when built with a 64-bit
 * time_t, and the old ones otherwise; the old ones then answer as the C
 * library does for a time they cannot hold: -1 with EOVERFLOW.  The shim is
 * built with the target's own 32-bit time_t on purpose, so that the plain
 * names below are those old entry points.
 *
 * TAVEL_CLOCK_TRACE=FILE appends "ENTRY-POINT SECONDS" the first time the
 * program reads the moved clock through each entry point (-1 for a failed
 * read), so a test can tell which time the program really saw.
 */
#undef _TIME_BITS
#undef _FILE_OFFSET_BITS
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const char *g_shiftFile;
static uintptr_t g_lo, g_hi; /* the program's mapped range */

/* The first object dl_iterate_phdr reports is the program itself. */
static int programRange(struct dl_phdr_info *info, size_t size, void *data)
{
    (void)size;
    (void)data;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr) *ph = &info->dlpi_phdr[i];
        if (ph->p_type == PT_LOAD) {
            uintptr_t lo = info->dlpi_addr + ph->p_vaddr;
            if (g_lo == 0 || lo < g_lo) {
                g_lo = lo;
            }
            if (lo + ph->p_memsz > g_hi) {
                g_hi = lo + ph->p_memsz;
            }
        }
    }
    return 1;
}

enum {
    ENTRY_CLOCK,
    ENTRY_TIME,
    ENTRY_TIMEOFDAY,
    ENTRY_CLOCK32,
    ENTRY_TIME32,
    ENTRY_TIMEOFDAY32,
    ENTRY_COUNT
};
static const char *const kEntryNames[ENTRY_COUNT] = {
#if defined(__TIMESIZE) && __TIMESIZE == 32
    "__clock_gettime64", "__time64", "__gettimeofday64", "clock_gettime", "time", "gettimeofday",
#else
    "clock_gettime", "time", "gettimeofday", "", "", "",
#endif
};
static volatile int g_traced[ENTRY_COUNT];

static void trace(int entry, int64_t seconds)
{
    const char *path = getenv("TAVEL_CLOCK_TRACE");
    if (path == NULL || g_traced[entry]) {
        return;
    }
    g_traced[entry] = 1;
    char line[64];
    int n = snprintf(line, sizeof(line), "%s %lld\n", kEntryNames[entry], (long long)seconds);
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        if (write(fd, line, (size_t)n) < 0) {
            /* nothing to do: the trace is best effort */
        }
        close(fd);
    }
}

static int shifted(clockid_t id, const void *caller)
{
    uintptr_t at = (uintptr_t)caller;
    return (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE) && at >= g_lo && at < g_hi;
}

static int64_t currentShift(void)
{
    char text[32];
    int fd = g_shiftFile != NULL ? open(g_shiftFile, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        return 0;
    }
    ssize_t n = read(fd, text, sizeof(text) - 1);
    close(fd);
    if (n <= 0) {
        return 0;
    }
    text[n] = '\0';
    return strtoll(text, NULL, 10);
}

/* The wide entry points: the 64-bit ones of a 32-bit target, the only ones
 * of a 64-bit target.  One body serves both; only the names and records
 * differ. */
#if defined(__TIMESIZE) && __TIMESIZE == 32
struct wide_ts {
    int64_t tv_sec;
    int32_t tv_nsec;
    int32_t pad;
};
struct wide_tv {
    int64_t tv_sec;
    int64_t tv_usec;
};
typedef int64_t wide_time;
#define WIDE_CLOCK __clock_gettime64
#define WIDE_TIME __time64
#define WIDE_TIMEOFDAY __gettimeofday64
#define REAL_CLOCK_NAME "__clock_gettime64"
#else
#define wide_ts timespec
#define wide_tv timeval
typedef time_t wide_time;
#define WIDE_CLOCK clock_gettime
#define WIDE_TIME time
#define WIDE_TIMEOFDAY gettimeofday
#define REAL_CLOCK_NAME "clock_gettime"
#endif

static int (*realClock64)(clockid_t, struct wide_ts *);

static int now64(int entry, clockid_t id, struct wide_ts *ts, const void *caller)
{
    int rc = realClock64(id, ts);
    if (rc == 0 && shifted(id, caller)) {
        ts->tv_sec += currentShift();
        trace(entry, ts->tv_sec);
    }
    return rc;
}

int WIDE_CLOCK(clockid_t id, struct wide_ts *ts)
{
    return now64(ENTRY_CLOCK, id, ts, __builtin_return_address(0));
}

wide_time WIDE_TIME(wide_time *out)
{
    struct wide_ts ts;
    now64(ENTRY_TIME, CLOCK_REALTIME, &ts, __builtin_return_address(0));
    if (out != NULL) {
        *out = ts.tv_sec;
    }
    return ts.tv_sec;
}

int WIDE_TIMEOFDAY(struct wide_tv *tv, void *tz)
{
    (void)tz;
    struct wide_ts ts;
    int rc = now64(ENTRY_TIMEOFDAY, CLOCK_REALTIME, &ts, __builtin_return_address(0));
    if (rc == 0) {
        tv->tv_sec = ts.tv_sec;
        tv->tv_usec = ts.tv_nsec / 1000;
    }
    return rc;
}

#if defined(__TIMESIZE) && __TIMESIZE == 32
/* The old 32-bit entry points. */
static int now32(int entry, clockid_t id, struct timespec *ts, const void *caller)
{
    struct wide_ts t;
    int rc = realClock64(id, &t);
    if (rc == 0 && shifted(id, caller)) {
        t.tv_sec += currentShift();
        trace(entry, t.tv_sec > INT32_MAX ? -1 : t.tv_sec);
    }
    if (rc != 0) {
        return rc;
    }
    if (t.tv_sec > INT32_MAX || t.tv_sec < INT32_MIN) {
        errno = EOVERFLOW;
        return -1;
    }
    ts->tv_sec = (time_t)t.tv_sec;
    ts->tv_nsec = t.tv_nsec;
    return 0;
}

int clock_gettime(clockid_t id, struct timespec *ts)
{
    return now32(ENTRY_CLOCK32, id, ts, __builtin_return_address(0));
}

time_t time(time_t *out)
{
    struct timespec ts;
    time_t t =
        now32(ENTRY_TIME32, CLOCK_REALTIME, &ts, __builtin_return_address(0)) == 0 ? ts.tv_sec : (time_t)-1;
    if (out != NULL) {
        *out = t;
    }
    return t;
}

int gettimeofday(struct timeval *tv, void *tz)
{
    (void)tz;
    struct timespec ts;
    if (now32(ENTRY_TIMEOFDAY32, CLOCK_REALTIME, &ts, __builtin_return_address(0)) != 0) {
        return -1;
    }
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}
#endif

__attribute__((constructor)) static void init(void)
{
    *(void **)&realClock64 = dlsym(RTLD_NEXT, REAL_CLOCK_NAME);
    if (realClock64 == NULL) {
        abort();
    }
    dl_iterate_phdr(programRange, NULL);
    g_shiftFile = getenv("TAVEL_CLOCK_SHIFT_FILE");
}
