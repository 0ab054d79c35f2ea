// The operator's view of the agent: one snapshot record and its notice lines.
#include "agent_status.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "agent_output.h"

#ifndef TAVEL_VERSION
#define TAVEL_VERSION "unknown"
#endif

namespace
{

// The cause comes partly from the data model (the CA path) and is logged:
// bounded like every other log value.
constexpr size_t kCauseMax = 256;

struct StatusData {
    AgentState state = AgentState::Starting;
    char cause[kCauseMax] = "";
    time_t since = 0;
    time_t nextTry = 0; // 0: nothing scheduled
    int attempts = 0;
    int retryCount = 0;
    int lastResult = -1; // -1: no request made yet
    bool firewallOpen = false;
    bool accountPresent = false;
    bool reportDue = false;
    char parkedCode[4] = "";
};

// The one record of the module: the data and the mutex that guards it.
struct Snapshot {
    pthread_mutex_t mutex;
    StatusData data;
};
Snapshot g_snapshot = {PTHREAD_MUTEX_INITIALIZER, StatusData{}};

class SnapshotLock
{
public:
    SnapshotLock() { pthread_mutex_lock(&g_snapshot.mutex); }
    ~SnapshotLock() { pthread_mutex_unlock(&g_snapshot.mutex); }
    SnapshotLock(const SnapshotLock &) = delete;
    SnapshotLock &operator=(const SnapshotLock &) = delete;
};

const char *const kStateNames[] = {
    "starting",          "waiting-clock",    "waiting-role",         "fetching",
    "applying",          "retry-wait",       "waiting-bootstrap",    "reporting",
    "report-retry-wait", "waiting-timezone", "waiting-country-code", "idle",
    "exiting",
};
static_assert(sizeof(kStateNames) / sizeof(kStateNames[0]) == static_cast<size_t>(AgentState::Exiting) + 1,
              "one name per state");

void isoTime(time_t t, char *buf, size_t size)
{
    struct tm utc;
    if (gmtime_r(&t, &utc) == nullptr || strftime(buf, size, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
        snprintf(buf, size, "%lld", static_cast<long long>(t));
    }
}

// A JSON string, control characters and non-ASCII bytes escaped, so a
// reader never meets invalid UTF-8 from a data-model value.
void appendJsonString(std::string &out, const char *s)
{
    out += '"';
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(s); *p != 0; ++p) {
        if (*p == '"' || *p == '\\') {
            out += '\\';
            out += static_cast<char>(*p);
        } else if (*p < 0x20 || *p >= 0x7f) {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\u%04x", *p);
            out += esc;
        } else {
            out += static_cast<char>(*p);
        }
    }
    out += '"';
}

struct JsonObject {
    std::string text = "{";
    void key(const char *name)
    {
        if (text.size() > 1) {
            text += ',';
        }
        appendJsonString(text, name);
        text += ':';
    }
    void str(const char *name, const char *value)
    {
        key(name);
        if (value == nullptr) {
            text += "null";
        } else {
            appendJsonString(text, value);
        }
    }
    void num(const char *name, long long value)
    {
        key(name);
        char digits[24];
        snprintf(digits, sizeof(digits), "%lld", value);
        text += digits;
    }
    void flag(const char *name, bool value)
    {
        key(name);
        text += value ? "true" : "false";
    }
};

} // namespace

const char *tavel_stateName(AgentState state)
{
    return kStateNames[static_cast<size_t>(state)];
}

AgentState tavel_statusState(void)
{
    SnapshotLock lock;
    return g_snapshot.data.state;
}

void tavel_statusEnter(const char *func, const char *file, int line, AgentState state, int nextTrySeconds,
                       const char *fmt, ...)
{
    char cause[kCauseMax];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cause, sizeof(cause), fmt, ap);
    va_end(ap);

    time_t now = time(nullptr);
    time_t next = 0;
    if (nextTrySeconds >= 0) {
        struct timespec delay = tavel_scaledDelay(nextTrySeconds);
        next = now + delay.tv_sec + (delay.tv_nsec > 0 ? 1 : 0);
    }
    bool changed;
    {
        SnapshotLock lock;
        changed = g_snapshot.data.state != state || strcmp(g_snapshot.data.cause, cause) != 0;
        if (changed) {
            g_snapshot.data.since = now;
        }
        if (state == AgentState::Fetching) {
            g_snapshot.data.attempts += 1;
        }
        g_snapshot.data.state = state;
        memcpy(g_snapshot.data.cause, cause, sizeof(cause));
        g_snapshot.data.nextTry = next;
    }
    if (!changed) {
        return;
    }
    if (next != 0) {
        char when[32];
        isoTime(next, when, sizeof(when));
        tavel_logNotice(func, file, line, "state %s: %s; next try %s (in %d s)\n", tavel_stateName(state),
                        cause, when, nextTrySeconds);
    } else {
        tavel_logNotice(func, file, line, "state %s: %s\n", tavel_stateName(state), cause);
    }
}

void tavel_statusResult(int code)
{
    SnapshotLock lock;
    g_snapshot.data.lastResult = code;
}

void tavel_statusRetryCount(int count)
{
    SnapshotLock lock;
    g_snapshot.data.retryCount = count;
}

void tavel_statusFirewall(int open)
{
    SnapshotLock lock;
    g_snapshot.data.firewallOpen = open != 0;
}

void tavel_statusAccount(int present)
{
    SnapshotLock lock;
    g_snapshot.data.accountPresent = present != 0;
}

void tavel_statusPendingReport(int due)
{
    SnapshotLock lock;
    g_snapshot.data.reportDue = due != 0;
}

void tavel_statusParkedCode(const char *code)
{
    SnapshotLock lock;
    tavel_copyText(g_snapshot.data.parkedCode, sizeof(g_snapshot.data.parkedCode), tavel_text(code),
                   sizeof(g_snapshot.data.parkedCode) - 1);
}

void tavel_resultText(int code, char *buf, size_t size)
{
    static const struct {
        int code;
        const char *meaning;
    } kMeanings[] = {
        {0, "no HTTP status"},
        {110, "connection timed out"},
        {200, "OK"},
        {204, "No Content"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {500, "Internal Server Error"},
        {503, "Service Unavailable"},
        {504, "server status outside 110-503"},
        {505, "CA file missing"},
        {5000, "transfer failed"},
        {5001, "time-zone service unavailable"},
        {5002, "no response code"},
    };
    const char *meaning = "HTTP status";
    for (const auto &m : kMeanings) {
        if (m.code == code) {
            meaning = m.meaning;
        }
    }
    snprintf(buf, size, "%d %s", code, meaning);
}

std::string tavel_statusJson(void)
{
    StatusData s;
    {
        SnapshotLock lock;
        s = g_snapshot.data;
    }
    char since[32];
    char next[32];
    char result[64];
    isoTime(s.since, since, sizeof(since));
    isoTime(s.nextTry, next, sizeof(next));
    tavel_resultText(s.lastResult, result, sizeof(result));

    JsonObject o;
    o.str("state", tavel_stateName(s.state));
    o.str("cause", s.cause);
    o.str("since", s.since != 0 ? since : nullptr);
    o.num("attempt", s.attempts);
    o.num("retry_count", s.retryCount);
    o.str("last_result", s.lastResult >= 0 ? result : nullptr);
    o.str("next_try", s.nextTry != 0 ? next : nullptr);
    o.flag("firewall_open", s.firewallOpen);
    o.str("account", s.accountPresent ? "present" : "empty");
    o.flag("pending_report", s.reportDue);
    o.str("parked_country_code", s.parkedCode[0] != '\0' ? s.parkedCode : nullptr);
    o.flag("secrets_redacted", tavel_redacting() != 0);
    o.str("version", TAVEL_VERSION);
    o.text += '}';
    return o.text;
}

void tavel_statusReset(void)
{
    SnapshotLock lock;
    g_snapshot.data = StatusData{};
}
