/*
 * Time-zone application: parsing the server's "timezone" reply header,
 * mapping the received zone through the device's mapping file, and writing
 * the result to the data model.
 *
 * Header values come from the network and are parsed defensively: every field
 * a malformed value cannot fill is left empty.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include "files.h"
#include "logtext.h"
#include "main.h"
#include "platform_log.h"
#include "tavel_curl.h"
#include "util.h"

namespace
{

constexpr int kHistoryEvent = 6;
constexpr size_t kFieldMax = 49;
/* Longest mapping line taken into account, line feed not counted. */
constexpr size_t kMappingLineMax = 499;

/* glibc prints "(null)" for a null %s; spelling it out keeps the log lines
 * the same without relying on it. */
const char *orNull(const char *text)
{
    return text != nullptr ? text : "(null)";
}

void touchTimezoneMarker()
{
    tavel_touch(TAVEL_TIMEZONECONFIG_FILE);
}

/* After a successful write: the pause the device gives the zone to settle,
 * then the marker and the history event. */
void applyTimezoneMarkerAfterPause()
{
    /* The NTP handler may rewrite g_timezone while the lock is given up for
     * the wait; the event reports the zone applied here. */
    char applied[sizeof(g_timezone)];
    memcpy(applied, g_timezone, sizeof(applied));
    tavel_sleep(60);
    touchTimezoneMarker();
    event_log_log(kHistoryEvent,
                  "event[TZ Config] timezone[%s,%s,%s] Timezone:{timezone} Configuration from Velka "
                  "Cloud Successful",
                  logText(applied).c_str(), logText(g_timezoneCode).c_str(),
                  logText(g_continent_city).c_str());
    TAVEL_LOGN("send history event: event[TZ Config] timezone[[%s,%s,%s]] Timezone:{timezone} "
               "Configuration from Velka Cloud Successful",
               logText(applied).c_str(), logText(g_timezoneCode).c_str(), logText(g_continent_city).c_str());
}

void retryTimezoneLater()
{
    tavel_armRetry(TAVEL_RC_TZ_UNAVAILABLE, TAVEL_TIMER_RETRY);
}

/* Turns the field separators of a mapping line into ';': commas inside double
 * quotes belong to the field. */
void markMappingFields(char *line)
{
    bool inQuotes = false;
    for (char *p = line; *p != '\0'; ++p) {
        if (*p == '"') {
            inQuotes = !inQuotes;
        } else if (*p == ',' && !inQuotes) {
            *p = ';';
        }
    }
}

/* Non-empty fields of a mapping line, counted the way the value is later
 * split, up to five; the line end is not a field of its own. */
int countMappingFields(const char *line)
{
    char copy[kMappingLineMax + 2] = {0};
    tavel_copyText(copy, sizeof(copy), line, sizeof(copy) - 1);
    copy[strcspn(copy, "\r\n")] = '\0';
    markMappingFields(copy);
    int count = 0;
    char *save = nullptr;
    for (char *tok = strtok_r(copy, ";", &save); tok != nullptr && count < 5;
         tok = strtok_r(nullptr, ";", &save)) {
        ++count;
    }
    return count;
}

void logLookupFailed()
{
    TAVEL_LOGE("Applying timezoneconfig failed\n");
    TAVEL_LOGE("tavel_handleTimezonedetails exit \n");
}

/* The mapping file comes with the device, but it is read as untrusted: only
 * a regular file, opened without blocking, of at most this size, so a FIFO,
 * a directory or a link to a device node fails the lookup instead of hanging
 * the agent or feeding it without end. */
constexpr size_t kMappingFileMax = size_t{1024} * 1024; // "1 MiB" in the log

/* The whole mapping file, read with plain read() calls.  Returns its length,
 * or -1 after logging why it was refused; an I/O error is -2. */
ssize_t readMappingFile(std::unique_ptr<char, FreeDeleter> &out)
{
    DevicePath path(TAVEL_TIMEZONE_MAPPING_FILE);
    int fd = tavel_openRegular(path.c_str(), kMappingFileMax);
    if (fd < 0) {
        if (errno == ENOENT) {
            return -1;
        }
        TAVEL_LOGE("timezone mapping file %s refused: %s\n", TAVEL_TIMEZONE_MAPPING_FILE,
                   errno == EFBIG    ? "over 1 MiB"
                   : errno == EINVAL ? "not a regular file"
                                     : strerror(errno));
        return -1;
    }
    FdGuard guard(fd);
    out.reset(static_cast<char *>(malloc(kMappingFileMax + 1)));
    if (!out) {
        return -2;
    }
    size_t len = 0;
    // One byte more than the cap is asked for, so a file that grew after
    // the size check is noticed rather than cut.
    while (len <= kMappingFileMax) {
        ssize_t n = read(fd, out.get() + len, kMappingFileMax + 1 - len);
        if (n == 0) {
            return static_cast<ssize_t>(len);
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -2;
        }
        len += static_cast<size_t>(n);
    }
    TAVEL_LOGE("timezone mapping file %s refused: %s\n", TAVEL_TIMEZONE_MAPPING_FILE, "over 1 MiB");
    return -1;
}

} // namespace

char g_timezoneCode[50];
char g_continent_city[50];
int32_t g_tzFailEventSent;

void tavel_resetTimezoneHeaderState(void)
{
    memset(g_timezoneCode, 0, sizeof(g_timezoneCode));
    memset(g_continent_city, 0, sizeof(g_continent_city));
    g_tzFailEventSent = 0;
}

/* The header's own lines follow the reply's header-trace budget: a server
 * repeating a huge "timezone" header must not flood the device log. */
#define TZ_TRACE(fmt, ...)                                                                                   \
    do {                                                                                                     \
        if (tavel_headerTraced() != 0) {                                                                     \
            TAVEL_LOGN(fmt, ##__VA_ARGS__);                                                                  \
        }                                                                                                    \
    } while (0)

void handle_timezoneHeader(const char *line, size_t length)
{
    if (line == nullptr || length <= 1) {
        return;
    }
    std::unique_ptr<char, FreeDeleter> copy(static_cast<char *>(calloc(length + 1, 1)));
    if (!copy) {
        return;
    }
    memset(&g_timezoneData, 0, sizeof(g_timezoneData));

    /* The line is not terminated: it is printed by length only. */
    int shown = length > 0x7fffffff ? 0x7fffffff : static_cast<int>(length);
    TZ_TRACE("timzone header received is %s lenght %d \n", LogValue(line, length).c_str(), shown);
    memcpy(copy.get(), line, length);
    TZ_TRACE("timzone header received after copying %s \n", LogValue(copy.get()).c_str());

    /* The error form is read from the whole line, before splitting cuts it up. */
    char errorWord[kFieldMax + 1] = {0};
    if (sscanf(copy.get(), "timezone: %49s", errorWord) != 1) {
        errorWord[0] = '\0';
    }

    char *save = nullptr;
    char *name = strtok_r(copy.get(), ":", &save);
    TZ_TRACE("timzone token is %s\n", LogValue(orNull(name)).c_str());
    char *first = strtok_r(nullptr, ",", &save);
    TZ_TRACE("first token is %s\n", LogValue(orNull(first)).c_str());

    if (first == nullptr || strstr(first, "code") == nullptr) {
        TZ_TRACE(" erro code is %s\n", logText(errorWord).c_str());
        tavel_copyText(g_timezoneData.errorcode, sizeof(g_timezoneData.errorcode), errorWord, kFieldMax);
    } else {
        char code[32] = {0};
        if (sscanf(first, " {\"code\":\"%31[^\"]%*s", code) != 1) {
            code[0] = '\0';
        }
        TZ_TRACE("timzone token timezone value is %s\n", logText(code).c_str());
        tavel_copyText(g_timezoneCode, sizeof(g_timezoneCode), code, kFieldMax);
        tavel_copyText(g_timezoneData.timezone, sizeof(g_timezoneData.timezone), code, kFieldMax);

        char *second = strtok_r(nullptr, ",", &save);
        TZ_TRACE("second token is %s\n", LogValue(orNull(second)).c_str());
        char *third = strtok_r(nullptr, ",", &save);
        TZ_TRACE("third token is %s\n", LogValue(orNull(third)).c_str());
        char id[32] = {0};
        if (third == nullptr || sscanf(third, "\"id\":\"%31[^\"]%*s", id) != 1) {
            id[0] = '\0';
        }

        tavel_copyText(g_continent_city, sizeof(g_continent_city), id, kFieldMax);
        removeBackslashes(g_continent_city);
        TZ_TRACE("g_continent_city is =  %s", logText(g_continent_city).c_str());

        /* The city is split from the identifier as received, so escaped
         * separators leave their backslash on the leading components. */
        char *idSave = nullptr;
        char *fourth = strtok_r(id, "/", &idSave);
        TZ_TRACE("fourth token is %s\n", LogText<sizeof(id)>(orNull(fourth)).c_str());
        char *fifth = strtok_r(nullptr, "/", &idSave);
        TZ_TRACE("fifth token is %s\n", LogText<sizeof(id)>(orNull(fifth)).c_str());
        char *sixth = strtok_r(nullptr, ",", &idSave);
        TZ_TRACE("sixth token is %s\n", LogText<sizeof(id)>(orNull(sixth)).c_str());
        const char *city = sixth != nullptr ? sixth : fifth;
        tavel_copyText(g_timezoneData.cityname, sizeof(g_timezoneData.cityname), city, kFieldMax);
        TZ_TRACE(" g_timezoneData.cityname value is %s\n", logText(g_timezoneData.cityname).c_str());
    }

    TZ_TRACE("g_timezoneData.timezone is %s\n", logText(g_timezoneData.timezone).c_str());
    TZ_TRACE("g_timezoneData.cityname is %s\n", logText(g_timezoneData.cityname).c_str());
    TZ_TRACE("g_timezoneData.errorcode is %s\n", logText(g_timezoneData.errorcode).c_str());
}

void removeBackslashes(char *text)
{
    if (text == nullptr) {
        return;
    }
    char *dst = strchr(text, '\\');
    if (dst == nullptr) {
        return;
    }
    for (const char *src = dst; *src != '\0'; ++src) {
        if (*src == '\\') {
            ++src;
            if (*src == '\0') {
                break;
            }
        }
        *dst++ = *src;
    }
    *dst = '\0';
}

/*
 * The mapping file is searched here rather than through a cat | grep
 * pipeline: the code and the city come from the network, and the pipeline
 * would hand them to a shell unquoted.  A line is selected when it holds the
 * code and the city as plain substrings; the first such line wins.  An empty
 * code or city selects nothing (the pipeline's grep would fail on them too),
 * so a malformed header can never pick the file's first line by accident.
 *
 * Lines longer than 499 characters, or holding a NUL byte, are skipped: they
 * cannot be mapping lines of the device's file, and a cut copy could hand a
 * wrong zone to the data model.
 *
 * A selected line that is a single blank, or that has fewer than the five
 * fields the mapping needs, means the device knows the zone but cannot map
 * it: that is the failed-mapping case, recorded as a history event so the
 * user sees why the zone was not applied.  Finding no line at all stays
 * silent in the history, as the device has simply no entry for the zone.
 */
int gettimezonecmd(char *line, int size)
{
    if (line == nullptr || size <= 0) {
        return -1;
    }
    const char *code = g_timezoneData.timezone;
    const char *city = g_timezoneData.cityname;

    /* Field diagnostics know the lookup by this command line. */
    char command[500] = {0};
    snprintf(command, sizeof(command), "cat %s | grep '\\%s' | grep %s", TAVEL_TIMEZONE_MAPPING_FILE, code,
             city);
    TAVEL_LOGN(" buf value is %s\n", logText(command).c_str());

    std::unique_ptr<char, FreeDeleter> data;
    ssize_t fileSize = readMappingFile(data);
    if (fileSize == -1) {
        TAVEL_LOGN("popen error \n");
        logLookupFailed();
        return -1;
    }
    if (fileSize < 0) {
        TAVEL_LOGE("fgets error \n");
        logLookupFailed();
        return -1;
    }

    /* Lines are found with memchr over the buffer; only a candidate line is
     * copied out, terminated, for the substring tests. */
    std::string_view file(data.get(), static_cast<size_t>(fileSize));
    std::string_view wantCode(code);
    std::string_view wantCity(city);
    char text[kMappingLineMax + 2] = {0};
    bool hadLf = false;
    bool found = false;
    while (!file.empty()) {
        size_t end = file.find('\n');
        hadLf = end != std::string_view::npos;
        std::string_view lineView = file.substr(0, hadLf ? end : file.size());
        file.remove_prefix(hadLf ? end + 1 : file.size());
        if (lineView.size() > kMappingLineMax || lineView.find('\0') != std::string_view::npos ||
            wantCode.empty() || wantCity.empty() || lineView.find(wantCode) == std::string_view::npos ||
            lineView.find(wantCity) == std::string_view::npos) {
            continue;
        }
        memcpy(text, lineView.data(), lineView.size());
        text[lineView.size()] = '\0';
        found = true;
        break;
    }
    if (!found) {
        TAVEL_LOGE("read eof -content is empty \n");
        logLookupFailed();
        return -1;
    }

    if (strcmp(text, " ") == 0 || countMappingFields(text) < 5) {
        event_log_log(kHistoryEvent, "event[TZ Config Failed] reason[Timezone mapping failed] Timezone "
                                     "Configuration failed from Velka WiFi Cloud, Reason: {reason}");
        TAVEL_LOGE(" No linux timezone to ONT timezone mapping avalieble for %s %s\n",
                   LogText<kFieldMax>(code).c_str(), LogText<kFieldMax>(city).c_str());
        TAVEL_LOGE("tavel_handleTimezonedetails exit \n");
        return -1;
    }

    if (hadLf) {
        size_t len = strlen(text);
        text[len] = '\n';
        text[len + 1] = '\0';
    }
    tavel_copyText(line, static_cast<size_t>(size), text, static_cast<size_t>(size) - 1);
    TAVEL_LOGN("final string is %s\n", LogText<kMappingLineMax>(line).c_str());
    return 0;
}

void gettimezoneandzonename(char *line, char *timezone, char *timezonename)
{
    if (timezone != nullptr) {
        timezone[0] = '\0';
    }
    if (timezonename != nullptr) {
        timezonename[0] = '\0';
    }
    if (line == nullptr) {
        return;
    }
    TAVEL_LOGN("enter gettimezoneandzonename cmd value is %s\n", LogText<kMappingLineMax>(line).c_str());
    markMappingFields(line);
    TAVEL_LOGN("cmd value after processing is %s\n", LogText<kMappingLineMax>(line).c_str());

    char *save = nullptr;
    char *tok[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
    tok[0] = strtok_r(line, ";", &save);
    for (int i = 1; i < 5 && tok[i - 1] != nullptr; ++i) {
        tok[i] = strtok_r(nullptr, ";", &save);
    }
    TAVEL_LOGN(" first token is %s\n", LogText<kMappingLineMax>(orNull(tok[0])).c_str());
    TAVEL_LOGN(" second token is %s\n", LogText<kMappingLineMax>(orNull(tok[1])).c_str());
    TAVEL_LOGN("third token is %s\n", LogText<kMappingLineMax>(orNull(tok[2])).c_str());
    TAVEL_LOGN("fourth token is %s\n", LogText<kMappingLineMax>(orNull(tok[3])).c_str());
    TAVEL_LOGN("last token is %s\n", LogText<kMappingLineMax>(orNull(tok[4])).c_str());

    if (timezone != nullptr) {
        tavel_copyText(timezone, 50, tok[3], kFieldMax);
    }
    if (timezonename != nullptr && tok[4] != nullptr) {
        size_t n = 0;
        for (const char *p = tok[4]; *p != '\0' && n < 51; ++p) {
            if (*p != '"') {
                timezonename[n++] = *p;
            }
        }
        timezonename[n] = '\0';
    }
}

void tavel_handleTimezonedetails(const TimezoneData *data)
{
    TAVEL_LOGN("tavel_handleTimezonedetails enter \n");
    static const TimezoneData kNone = {};
    if (data == nullptr) {
        data = &kNone;
    }
    const size_t codeSize = sizeof(data->errorcode);

    if (strncmp(data->errorcode, "100", codeSize) == 0) {
        if (g_tzFailEventSent == 0) {
            event_log_log(kHistoryEvent, "event[TZ Config Failed] reason[Service Unavailable] Timezone "
                                         "Configuration failed from Velka WiFi Cloud, Reason: {reason}");
            TAVEL_LOGN("history event send: event[TZ Config] Timezone Configuration failed from Velka WiFi "
                       "Cloud, Reason[Service Unavailable]");
            g_tzFailEventSent = 1;
        }
        TAVEL_LOGN(" IP Stack is down going for retry exponetial \n");
        retryTimezoneLater();
        TAVEL_LOGN("started exponential retry timer \n");
    } else if (strncmp(data->errorcode, "101", codeSize) == 0) {
        touchTimezoneMarker();
        TAVEL_LOGN("No Timezone Info from IP STACK use existing ONT timezone\n");
        event_log_log(kHistoryEvent,
                      "event[TZ Config Failed] reason[No Timezone Info] Timezone Configuration "
                      "failed from Velka WiFi Cloud, Reason: {reason}");
        TAVEL_LOGN("history event send:event[TZ Config] Timezone Configuration failed from Velka WiFi Cloud, "
                   "Reason[No Timezone Info]");
    } else {
        char mapping[500] = {0};
        if (gettimezonecmd(mapping, sizeof(mapping)) == 0) {
            char timezonename[52] = {0};
            gettimezoneandzonename(mapping, g_timezone, timezonename);
            TAVEL_LOGN("final timezone = %s, timezonename = %s len %d", logText(g_timezone).c_str(),
                       logText(timezonename).c_str(), static_cast<int>(strlen(timezonename)));
            if (dml_setTimeZone(g_timezone, timezonename) != 0) {
                /* No marker for a zone the device does not hold: the step
                 * runs again, as when the time-zone service is down. */
                TAVEL_LOGE("dml_setTimeZone(%s, %s) failed: time zone not applied\n",
                           logText(g_timezone).c_str(), logText(timezonename).c_str());
                retryTimezoneLater();
            } else {
                applyTimezoneMarkerAfterPause();
            }
        } else {
            TAVEL_LOGE("gettimezonecmd failed");
            touchTimezoneMarker();
        }
    }
    TAVEL_LOGN("tavel_handleTimezonedetails exit \n");
}
