/*
 * Country-code synchronisation: deciding whether a code received from the
 * onboarding server may be applied, applying it or parking it while the
 * mobile-app onboarding (MAPP) runs, and the small file helpers it needs.
 *
 * Every path argument is a device path; TAVEL_ROOT is put in front here, so
 * the callers never deal with the root themselves.
 */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/file.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "agent_status.h"
#include "files.h"
#include "logtext.h"
#include "main.h"
#include "util.h"

namespace
{

/* The device firmware read a marker with "cat %s" in a 32-byte command
 * buffer bounded to 30 characters: a path longer than 26 characters was cut.
 * The cut is kept, so a long path reads as a missing file here too. */
constexpr size_t kCatPathMaxChars = 30 - (sizeof("cat ") - 1);

/* The firmware's "echo %s > %s" fitted a 64-byte buffer; no longer code
 * could be parked, and none longer is written now. */
constexpr size_t kParkedLineMax = 63 - (sizeof("echo  > ") - 1) - (sizeof(TAVEL_COUNTRY_CODE_FILE) - 1);

/* A list entry's code is a 5-byte field the platform fills; it is not trusted
 * to be terminated. */
bool entryMatches(const CountryEntry &entry, const char *code)
{
    char entryCode[sizeof(entry.code) + 1] = {0};
    memcpy(entryCode, entry.code, sizeof(entry.code));
    return strcasecmp(entryCode, code) == 0;
}

} // namespace

int32_t g_timerAliveFlag;

void tavel_resetCountryState(void)
{
    g_timerAliveFlag = 0;
}

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
    TAVEL_LOGN("country code received from tavel server : %s\n", LogText<kParkedLineMax>(code).c_str());
    if (tavel_access(TAVEL_ONBOARDING_IN_PROGRESS_FILE) != 0) {
        TAVEL_LOGN("update cc since MAPP didn't set\n");
        update_country_code(code);
        return;
    }
    TAVEL_LOGN("MAPP onboarding started wait for 30 min\n");
    removeCountryCodeFile();
    /* As "echo CODE > file" did: the code and a line feed.  The code comes
     * from the network; it only ever reaches the file as bytes. */
    char line[kParkedLineMax + 2] = {0};
    size_t n = strnlen(code, kParkedLineMax);
    memcpy(line, code, n);
    line[n] = '\n';
    tavel_writeFile(TAVEL_COUNTRY_CODE_FILE, line, n + 1);
    g_timerAliveFlag = 1;
    startTimer(TAVEL_CC_APPLY_WAIT, g_tavelCtrl.ccApplyTimer);
    tavel_statusParkedCode(code);
}

void update_country_code(const char *code)
{
    if (code == nullptr) {
        code = "";
    }
    removeCountryCodeFile();
    TAVEL_LOGN("Inside update_country_code country code %s\n", LogText<kParkedLineMax>(code).c_str());

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
        tavel_remove(TAVEL_CC_CONFIGURED_BY, true);
    }
}

int tavel_setDataToFile(const char *path, const void *data, size_t size, int lock)
{
    DevicePath full(path);
    FilePtr file(fopen(full.c_str(), "w+"));
    if (!file) {
        /* Deliberately success: the mark is advisory, and the data-model
         * write that follows must still happen when it cannot be written. */
        TAVEL_LOGE("cannot write %s: %s\n", full.c_str(), strerror(errno));
        return 0;
    }
    int fd = fileno(file.get());
    if (lock != 0 && tavel_lockFile(fd, full.c_str()) != 0) {
        TAVEL_LOGE("error on set lock\n");
        tavel_stopPoint();
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
    char cut[kCatPathMaxChars + 1] = {0};
    tavel_copyText(cut, sizeof(cut), path, kCatPathMaxChars);
    int rc = read_from_file(DevicePath(cut).c_str(), buffer, size, lock);
    if (rc == 0) {
        TAVEL_LOGN("Read from file = %s, buf = %s\n", path,
                   LogText<64>(buffer, static_cast<size_t>(size)).c_str());
    }
    return rc;
}

/* The first line of a regular file, read the way "cat file | fgets" did: at
 * most size - 2 characters, one line feed stripped, the text ending at a NUL
 * byte.  Anything but a regular file reads as nothing, so a FIFO or a device
 * node planted at a marker's path cannot stall the agent.  With the lock
 * flag the read holds an exclusive flock on the file itself, so it never
 * sees a write of tavel_setDataToFile half done. */
int read_from_file(const char *path, char *buffer, int size, int lock)
{
    if (path == nullptr || buffer == nullptr || size < 2) {
        return -1;
    }
    int fd = tavel_openRegular(path, SIZE_MAX);
    if (fd < 0) {
        return -1;
    }
    FdGuard guard(fd);
    if (lock != 0 && tavel_lockFile(fd, path) != 0) {
        TAVEL_LOGE("set lock failed\n");
        tavel_stopPoint();
        return -1;
    }
    std::unique_ptr<char[]> scratch(new (std::nothrow) char[static_cast<size_t>(size)]());
    ssize_t got = scratch ? pread(fd, scratch.get(), static_cast<size_t>(size) - 2, 0) : -1;
    if (lock != 0) {
        flock(fd, LOCK_UN);
    }
    if (got <= 0) {
        return -1;
    }
    char *lf = static_cast<char *>(memchr(scratch.get(), '\n', static_cast<size_t>(got)));
    if (lf != nullptr) {
        lf[1] = '\0';
    }
    stripTrailingNewline(scratch.get());
    if (scratch[0] == '\0') {
        return -1;
    }
    memcpy(buffer, scratch.get(), strlen(scratch.get()) + 1);
    return 0;
}

void removeCountryCodeFile(void)
{
    tavel_remove(TAVEL_COUNTRY_CODE_FILE, false);
    tavel_statusParkedCode(nullptr);
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
