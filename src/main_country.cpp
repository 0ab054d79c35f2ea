/*
 * Country-code synchronisation: deciding whether a code received from the
 * onboarding server may be applied, applying it or parking it while the
 * mobile-app onboarding (MAPP) runs, and the small file helpers it needs.
 *
 * Every path argument is a device path; TAVEL_ROOT is put in front here, so
 * the callers never deal with the root themselves.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/file.h>

#include <memory>

#include "main.h"
#include "util.h"

namespace
{

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};
struct PipeCloser {
    void operator()(FILE *f) const { pclose(f); }
};
struct FreeDeleter {
    void operator()(char *p) const { free(p); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
using PipePtr = std::unique_ptr<FILE, PipeCloser>;

/* Base sizes of the command buffers; tavel_runCommand adds the root's length. */
constexpr size_t kShortCommandSize = 64;
constexpr size_t kCatCommandSize = 32;
constexpr size_t kCatCommandMaxChars = 30;

/* The missing-file case is routine for both the cat of a marker and the rm of
 * the parked code (it is removed before every application), and the callers
 * treat it as "nothing there" without a message.  The shell's complaint would
 * only land on the daemon's stderr, which is not the device log, so it is
 * dropped.  Real failures still show up through the results and log lines. */
constexpr char kQuietStderr[] = " 2>/dev/null";

/* The quoted code must leave room for the rest of "echo %s > %s" within the
 * 63 characters the command may take (the root is accounted for separately). */
constexpr size_t kEchoQuotedSize =
    kShortCommandSize - (sizeof("echo ") - 1) - (sizeof(" > ") - 1) - (sizeof(TAVEL_COUNTRY_CODE_FILE) - 1);

/* A list entry's code is a 5-byte field the platform fills; it is not trusted
 * to be terminated. */
bool entryMatches(const CountryEntry &entry, const char *code)
{
    char entryCode[sizeof(entry.code) + 1] = {0};
    memcpy(entryCode, entry.code, sizeof(entry.code));
    return strcasecmp(entryCode, code) == 0;
}

} // namespace

int validateCountryCode(const char *code)
{
    const SupportedCountryList &list = g_supportedCountryList;
    if (code == nullptr || list.groups == nullptr || list.groupCount <= 0 ||
        list.groups[0].countries == nullptr) {
        return -1;
    }
    for (int32_t g = 0; g < list.groupCount; ++g) {
        const CountryGroup &group = list.groups[g];
        if (group.countries == nullptr) {
            continue;
        }
        for (int32_t c = 0; c < group.countryCount; ++c) {
            if (entryMatches(group.countries[c], code)) {
                return checkCcConfiguredBy();
            }
        }
    }
    return -1;
}

int checkCcConfiguredBy(void)
{
    char buffer[6] = {0};
    if (tavel_getDataFromFile(buffer, TAVEL_CC_CONFIGURED_BY, sizeof(buffer), 1) == -1) {
        return 0;
    }
    return strncasecmp(buffer, "MAPP", 4) == 0 ? -1 : 0;
}

void tavel_setCountryCode(const char *code)
{
    if (code == nullptr) {
        code = "";
    }
    TAVEL_LOGN("country code received from tavel server : %s\n", code);
    if (tavel_access(TAVEL_ONBOARDING_IN_PROGRESS_FILE) != 0) {
        TAVEL_LOGN("update cc since MAPP didn't set\n");
        update_country_code(code);
        return;
    }
    TAVEL_LOGN("MAPP onboarding started wait for 30 min\n");
    removeCountryCodeFile();
    /* The code comes from the network: it reaches the shell only quoted.  A
     * code too long to fit is not parked at all, rather than letting the cut
     * command write somewhere else; the timer still applies it from memory. */
    char quoted[kEchoQuotedSize];
    if (tavel_shellQuote(code, quoted, sizeof(quoted)) == 0) {
        tavel_runCommand(kShortCommandSize, "echo %s > %s%s", quoted, tavel_root(), TAVEL_COUNTRY_CODE_FILE);
    } else {
        TAVEL_LOGE("country code %.16s too long to park\n", code);
    }
    g_timerAliveFlag = 1;
    startTimer(TAVEL_CC_APPLY_WAIT, g_tavelCtrl.ccApplyTimer);
}

void update_country_code(const char *code)
{
    if (code == nullptr) {
        code = "";
    }
    removeCountryCodeFile();
    TAVEL_LOGN("Inside update_country_code country code %s\n", code);

    /* The mark is a fixed 10-byte record: at most 8 characters, zero-padded. */
    char mark[10] = {0};
    snprintf(mark, 9, "TAVEL,%s", code);
    if (tavel_setDataToFile(TAVEL_CC_CONFIGURED_BY, mark, sizeof(mark), 1) == -1) {
        TAVEL_LOGE("set cc to file failed\n");
    }

    if (dml_setCountryID(code) == 0) {
        TAVEL_LOGN("Outside update_country_code, country code set successfully\n");
    } else {
        TAVEL_LOGE("dml_setCountryCode failed\n");
        /* Our mark must not claim a code the data model does not hold. */
        tavel_runCommand(kShortCommandSize, "rm -rf %s%s", tavel_root(), TAVEL_CC_CONFIGURED_BY);
    }
}

int tavel_setDataToFile(const char *path, const void *data, size_t size, int lock)
{
    FilePtr file(fopen(DevicePath(path).c_str(), "w+"));
    if (!file) {
        return 0;
    }
    int fd = fileno(file.get());
    if (lock != 0 && flock(fd, LOCK_EX) != 0) {
        TAVEL_LOGE("error on set lock\n");
        return -1;
    }
    if (data != nullptr && size > 0) {
        size_t items = fwrite(data, size, 1, file.get());
        (void)items;
    }
    /* stdio would otherwise write the data at fclose, after the lock is gone. */
    fflush(file.get());
    if (lock != 0) {
        flock(fd, LOCK_UN);
    }
    return 0;
}

int tavel_getDataFromFile(char *buffer, const char *path, int size, int lock)
{
    if (path == nullptr) {
        return -1;
    }
    /* The path is cut like the device's 30-character command; the root only
     * widens the bound.  The stderr redirection is appended after the cut. */
    size_t limit = kCatCommandMaxChars + tavel_rootLen();
    char command[kCatCommandSize + TAVEL_ROOT_MAX + sizeof(kQuietStderr)] = {0};
    snprintf(command, limit + 1, "cat %s%s", tavel_root(), path);
    strncat(command, kQuietStderr, sizeof(command) - strlen(command) - 1);

    int rc = read_from_file(command, buffer, size, lock);
    if (rc == 0) {
        TAVEL_LOGN("Read from file = %s, buf = %s\n", path, buffer);
    }
    return rc;
}

/* The lock flag serialises readers that go through this function with each
 * other (the lock is on the pipe of the command, not on the file read).  The
 * file itself is not locked: its writer empties it on open before taking its
 * own lock, so a reader's lock on the file would not prevent a torn read
 * anyway, and the agent only needs the first line. */
int read_from_file(const char *command, char *buffer, int size, int lock)
{
    if (command == nullptr || buffer == nullptr || size < 2) {
        return -1;
    }
    PipePtr pipe(popen(command, "r"));
    if (!pipe) {
        return -1;
    }
    int fd = fileno(pipe.get());
    if (lock != 0 && flock(fd, LOCK_EX) != 0) {
        TAVEL_LOGE("set lock failed\n");
        return -1;
    }
    std::unique_ptr<char, FreeDeleter> scratch(static_cast<char *>(calloc(static_cast<size_t>(size), 1)));
    int rc = -1;
    /* fgets may stop at a NUL byte in binary data; the text then simply ends
     * there, and the zeroed scratch keeps it terminated either way. */
    if (scratch && fgets(scratch.get(), size - 1, pipe.get()) != nullptr) {
        stripTrailingNewline(scratch.get());
        if (scratch.get()[0] != '\0') {
            memcpy(buffer, scratch.get(), strlen(scratch.get()) + 1);
            rc = 0;
        }
    }
    if (lock != 0) {
        flock(fd, LOCK_UN);
    }
    return rc;
}

void removeCountryCodeFile(void)
{
    tavel_runCommand(kShortCommandSize, "rm %s%s%s", tavel_root(), TAVEL_COUNTRY_CODE_FILE, kQuietStderr);
}

void stripTrailingNewline(char *text)
{
    if (text == nullptr) {
        return;
    }
    size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '\n') {
        text[len - 1] = '\0';
    }
}
