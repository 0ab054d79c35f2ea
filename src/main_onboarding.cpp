// The onboarding run: wait for a plausible clock and the device's role, fetch
// the onboarding data, apply what is new, and report the bootstrap outcome.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "agent_output.h"
#include "agent_status.h"
#include "cfgm_intf.h"
#include "logtext.h"
#include "main.h"
#include "reply_fields.h"
#include "tavel_curl.h"
#include "util.h"

namespace
{

// The exit after the status upload waits for the time-zone marker, polling.
constexpr unsigned kTimezoneMarkerPoll = 5;
constexpr unsigned kTimezoneMarkerWait = 3600;

bool isEmpty(const char *s)
{
    return s == nullptr || s[0] == '\0';
}

// After a successful fetch: apply the received time zone when it has not been
// configured yet, or when the mapped zone differs from the device's.
void applyTimezone()
{
    if (tavel_access(TAVEL_TIMEZONECONFIG_FILE) != 0) {
        tavel_handleTimezonedetails(&g_timezoneData);
        return;
    }
    char current[DML_TIMEZONE_LEN] = {0};
    dml_getTimeZone(current);
    // The device value carries a 3-character prefix the mapping file lacks.
    const char *compare = strlen(current) >= 3 ? current + 3 : "";
    TAVEL_LOGN("timezoneconfigdone file present, timezone from dml: %s", logText(current).c_str());

    char cmd[500] = {0};
    if (gettimezonecmd(cmd, sizeof(cmd)) != 0) {
        TAVEL_LOGE("gettimezonecmd failed");
        return;
    }
    char timezonename[52] = {0};
    gettimezoneandzonename(cmd, g_timezone, timezonename);
    // The mapped value ends in a character the device does not store.
    size_t len = strnlen(g_timezone, sizeof(g_timezone));
    size_t n = len > 0 ? len - 1 : SIZE_MAX;
    if (strncmp(compare, g_timezone, n) != 0) {
        TAVEL_LOGN("Different timezone, handling timezone update, g_timezone: %s",
                   logText(g_timezone).c_str());
        tavel_handleTimezonedetails(&g_timezoneData);
    } else {
        TAVEL_LOGN("Same timezone");
    }
}

// What the agent waits for once a fetch's data are applied, unless a step
// of the run (a time-zone retry, a parked country code) said so already.
void noteWaitAfterFetch()
{
    if (tavel_statusState() != AgentState::Applying) {
        return;
    }
    if (g_tavelCtrl.statusUpdatePending != 0) {
        TAVEL_STATUS(AgentState::WaitingBootstrap, -1,
                     "account applied: waiting for the TR-069 bootstrap signal before reporting");
    } else if (g_timerAliveFlag != 0) {
        TAVEL_STATUS(AgentState::WaitingCountryCode, -1,
                     "a country code is parked for the mobile-app onboarding");
    } else {
        TAVEL_STATUS(AgentState::Idle, -1, "settings applied; the time-zone marker is still missing");
    }
}

void applyCountryCode()
{
    if (_g_modelCapability.isCCSyncRequired == 0) {
        TAVEL_LOGD("Capability: country code sync is not applicable");
    } else if (g_serverData.countryCode[0] == '\0') {
        TAVEL_LOGE("country code got from tavel server is empty\n");
    } else if (validateCountryCode(g_serverData.countryCode) == 0) {
        tavel_setCountryCode(g_serverData.countryCode);
    } else {
        TAVEL_LOGE("country code from tavel %s is not valid\n", logText(g_serverData.countryCode).c_str());
    }
}

} // namespace

int32_t g_statusRetryPending;
int32_t g_serverDataNotUsed;

void tavel_resetOnboardingState(void)
{
    g_tavelCtrl.statusUpdatePending = 0;
    g_statusRetryPending = 0;
    g_serverDataNotUsed = 0;
}

void validateSystemTimeAndStartPolling(void)
{
    time_t now = time(nullptr);
    struct tm local;
    memset(&local, 0, sizeof(local));
    if (localtime_r(&now, &local) == nullptr || local.tm_year <= 70) {
        startTimer(10, g_tavelCtrl.startWaitTimer);
        TAVEL_LOGD("TAVEL Waiting for system time !!\n");
        TAVEL_STATUS(AgentState::WaitingClock, 10, "the clock is not set yet (it shows 1970 or earlier)");
        return;
    }
    TAVEL_LOGE("TAVEL Got Valid Time ... Connecting to Ob Server !!\n");
    int mode = getworkMode();
    if (mode == -1) {
        TAVEL_LOGE("TAVEL work mode is CFG... Waiting to take Role !!\n");
        startTimer(10, g_tavelCtrl.startWaitTimer);
        TAVEL_STATUS(AgentState::WaitingRole, 10, "work mode CFG or unreadable: the device has no role yet");
        return;
    }
    if (mode == 0) {
        TAVEL_LOGE("TAVEL work mode is AP-Bridge... Exit Tavel !!\n");
        TAVEL_STATUS(AgentState::Exiting, -1, "work mode AP bridge: an access point is not onboarded");
        exitTavel();
        return;
    }
    TAVEL_LOGE("TAVEL work mode is ROOT... Continue !!\n");
    timer_delete(g_tavelCtrl.startWaitTimer);
    connectToOnBoardServer();
}

void connectToOnBoardServer(void)
{
    HttpInfo info;
    memset(&info, 0, sizeof(info));
    getOnBoardServerInfo(&info);
    if (info.enable == 0) {
        TAVEL_STATUS(AgentState::Exiting, -1,
                     "agent disabled: Device.X_TAVEL_Agent.Enable is 0 or unreadable");
        exitTavel();
        return;
    }
    memcpy(info.caCertPath, g_httpInfo.caCertPath, sizeof(info.caCertPath));
    info.timeout = g_httpInfo.timeout;

    TAVEL_LOGE("COnnect to TAVEL Server ..... \n");
    TAVEL_STATUS(AgentState::Fetching, -1, "asking the onboarding server");
    int code = httpGetUrlFromServer(&info, "");
    TAVEL_LOGE("httpGetUrlFromServer ret: %d\n", code);
    tavel_statusResult(code);
    updateOnBoardServerStatus(httpCodeToConnStatus(code));

    if (code != 200) {
        if (code == TAVEL_RC_NO_CERT) {
            TAVEL_LOGE("certificate not EXIST !!!!\n");
            TAVEL_STATUS(AgentState::Exiting, -1,
                         "CA file %s missing (Device.DeviceInfo.X_TAVEL_CACertPath): not retried",
                         info.caCertPath);
            exitTavel();
            return;
        }
        tavel_armRetry(code, TAVEL_TIMER_RETRY);
        return;
    }

    TAVEL_STATUS(AgentState::Applying, -1, "reply received: applying its settings");
    tavel_setCloudMAPPURL(g_serverData);

    char currentCode[DML_COUNTRYID_LEN] = {0};
    dml_getCountryID(currentCode);
    TAVEL_LOGN("CC sync required %d current country code %s country code recieved from tavel server %s\n",
               _g_modelCapability.isCCSyncRequired, logText(currentCode).c_str(),
               logText(g_serverData.countryCode).c_str());

    const char *url = g_serverData.mgmtUrl;
    if (isEmpty(url) || strcmp(url, "NA") == 0) {
        TAVEL_LOGN("TavelServer send NA/NULL values no need to retry or update data model");
        g_serverDataNotUsed = 1;
    } else if (strstr(url, "http") == nullptr || isEmpty(g_serverData.cdpusername) ||
               isEmpty(g_serverData.cdppassword)) {
        // An incomplete account is as good as none: ask again in about a day.
        TAVEL_LOGN("the reply's account is incomplete (a URL without http, or no user name or password): "
                   "retried like a 204\n");
        g_tavelCtrl.retryCount = 0;
        tavel_armRetry(204, TAVEL_TIMER_RETRY);
        return;
    } else if (isSameManagementAccount(&g_serverData) != 0 && tavel_isConnStatusFailed() == 0) {
        TAVEL_LOGE("Received Same Managment Connection Information from TAVEL Server... Exit Agent!\n");
        g_serverDataNotUsed = 1;
    } else if (tavel_isMgmtServerUrlEmpty() == 0 && tavel_isConnStatusFailed() == 0) {
        TAVEL_LOGN("Valid Management URL is present ... TavelServer Data not used!!\n");
        g_serverDataNotUsed = 1;
    } else {
        TAVEL_LOGN("Valid Management URL is NOT presnt .. apply TavelServer Data\n");
        dumpHttpConnectionDetails();
        dumpAcsConnectionDetails();
        tavel_setMgmtServerObj(&g_serverData);
        g_tavelCtrl.statusUpdatePending = 1;
        tavel_statusPendingReport(1);
    }

    applyTimezone();
    applyCountryCode();
    // The reply's buffers and the TLS session are gone; what follows may be
    // days of waiting for the bootstrap signal.
    tavel_releaseMemory();

    if (g_serverDataNotUsed == 1 && tavel_access(TAVEL_TIMEZONECONFIG_FILE) == 0 && g_timerAliveFlag == 0) {
        TAVEL_LOGE("Tavel exiting with timer alive flag %d\n", g_timerAliveFlag);
        TAVEL_STATUS(AgentState::Exiting, -1, "the reply held nothing new to apply");
        exitTavel();
    }
    noteWaitAfterFetch();
}

int httpCodeToConnStatus(int code)
{
    switch (code) {
    case 110:
        return CONN_STATUS_FAILED_110;
    case 200:
        return CONN_STATUS_SUCCESS;
    case 204:
        return CONN_STATUS_FAILED_204;
    case 400:
        return CONN_STATUS_FAILED_400;
    case 401:
        return CONN_STATUS_FAILED_401;
    case 403:
        return CONN_STATUS_FAILED_403;
    case 500:
        return CONN_STATUS_FAILED_500;
    case 503:
        return CONN_STATUS_FAILED_503;
    case TAVEL_RC_NO_CERT:
        return CONN_STATUS_FAILED_NO_CERT;
    case TAVEL_RC_TRANSFER_FAILED:
        return CONN_STATUS_FAILED_CURL;
    default:
        return CONN_STATUS_NO_CONNECTION;
    }
}

void updateStatus2OnBoardServer(const AcsBootstrapStatus *status)
{
    if (g_tavelCtrl.statusUpdatePending == 0 && g_statusRetryPending == 0) {
        return;
    }
    if (status != &g_acsBootstrapStatus) {
        g_acsBootstrapStatus = *status;
    }
    // The upload gives the agent lock up while it waits for the server, so a
    // bootstrap signal or the retry timer may arrive meanwhile.  One upload at
    // a time: the newer outcome is kept above and goes out with the retry if
    // the running upload fails.
    static bool uploading = false;
    if (uploading) {
        TAVEL_LOGN("status upload already under way; not starting another\n");
        return;
    }
    int statusValue = g_acsBootstrapStatus.status == 1 ? TAVEL_STATUS_SUCCESS : TAVEL_STATUS_ERROR;

    HttpInfo info;
    memset(&info, 0, sizeof(info));
    getOnBoardServerInfo(&info);
    memcpy(info.caCertPath, g_httpInfo.caCertPath, sizeof(info.caCertPath));
    appendStatusSuffix(info.url, statusValue);

    TAVEL_LOGE("Send Status TO Server Status %d\n", statusValue);
    TAVEL_LOGE("Send Status TO Server URL %s\n", logText(info.url).c_str());
    TAVEL_STATUS(AgentState::Reporting, -1, "reporting bootstrap status %d to the onboarding server",
                 static_cast<int>(g_acsBootstrapStatus.status));
    uploading = true;
    int code = httpPutToServer(&info);
    uploading = false;
    tavel_releaseMemory();
    TAVEL_LOGN("Response code received from tavel server %d\n", code);
    tavel_statusResult(code);

    if (code == 200) {
        g_tavelCtrl.statusUpdatePending = 0;
        g_statusRetryPending = 0;
        tavel_statusPendingReport(0);
        // The device must not lose its time zone to an early exit: the
        // time-zone step's retries get an hour.  Past that the exit goes
        // ahead; the next start finds no marker and onboards again.
        unsigned waited = 0;
        while (tavel_access(TAVEL_TIMEZONECONFIG_FILE) != 0) {
            if (waited >= kTimezoneMarkerWait) {
                TAVEL_LOGE("no time-zone marker %s after %u s: exiting without it\n",
                           TAVEL_TIMEZONECONFIG_FILE, waited);
                break;
            }
            TAVEL_STATUS(AgentState::WaitingTimezone, kTimezoneMarkerPoll,
                         "report accepted; waiting for the time-zone marker");
            tavel_sleep(kTimezoneMarkerPoll);
            waited += kTimezoneMarkerPoll;
        }
        TAVEL_LOGE(" exitTavel ");
        TAVEL_STATUS(AgentState::Exiting, -1, "report accepted: onboarding complete");
        exitTavel();
        return;
    }
    g_statusRetryPending = 1;
    tavel_statusPendingReport(1);
    int rc = tavel_armRetry(code, TAVEL_TIMER_STATUS);
    TAVEL_LOGE("Error code [%d] for timerId\n", rc);
}

void appendStatusSuffix(char *url, int statusValue)
{
    const char *suffix = statusValue == TAVEL_STATUS_SUCCESS ? "?status=SUCCESS"
                         : statusValue == TAVEL_STATUS_ERROR ? "?status=ERROR:CONN_FAILED"
                                                             : "";
    // The field is 256 bytes; a URL too long for its suffix is cut, never
    // overrun.
    size_t used = strnlen(url, 255);
    snprintf(url + used, 256 - used, "%s", suffix);
}

namespace
{

struct DumpLine {
    const char *label; // the field's name and separator, e.g. "g_httpInfo.url: "
    const char *value;
};

// Writes the banner and the lines to the platform log, then the same lines
// without the log prefix to standard output, where an operator sees them.
void dumpDetails(const char *func, const char *banner, const DumpLine *lines, size_t count,
                 const char *closing)
{
    TAVEL_LOGN_AS(func, "%s\n", banner);
    for (size_t i = 0; i < count; ++i) {
        TAVEL_LOGN_AS(func, "%s%s\n", lines[i].label, LogValue(lines[i].value).c_str());
    }
    tavel_out("%s\n", banner);
    for (size_t i = 0; i < count; ++i) {
        tavel_out("%s%s\n", lines[i].label, LogValue(lines[i].value).c_str());
    }
    if (closing != nullptr) {
        tavel_out("%s\n", closing);
    }
}

} // namespace

void dumpHttpConnectionDetails(void)
{
    char timeout[16];
    char authEnabled[16];
    snprintf(timeout, sizeof(timeout), "%d", g_httpInfo.timeout);
    snprintf(authEnabled, sizeof(authEnabled), "%d", g_httpInfo.authEnabled);
    const DumpLine lines[] = {
        {"g_httpInfo.url: ", g_httpInfo.url},
        {"g_httpInfo.authType ", g_httpInfo.authType},
        {"g_httpInfo.userName ", g_httpInfo.userName},
        {"g_httpInfo.password ", tavel_secret(g_httpInfo.password)},
        {"g_httpInfo.x_api_key ", tavel_secret(g_httpInfo.x_api_key)},
        {"g_httpInfo.timeout ", timeout},
        {"g_httpInfo.authEnabled ", authEnabled},
    };
    dumpDetails(__func__, "******************** OB Server Connection Details ***********************", lines,
                sizeof(lines) / sizeof(lines[0]), nullptr);
}

void dumpAcsConnectionDetails(void)
{
    // This dump leaves out the password and the cloud settings.  The cloud
    // values, the configuration API key among them, do reach the log: the
    // notice tavel_setCloudMAPPURL writes when it applies them shows them.
    DumpLine lines[sizeof(kReplyFields) / sizeof(kReplyFields[0])] = {};
    size_t count = 0;
    forEachHeapField(g_serverData, [&](const ReplyField &f, const char *value) {
        if (f.dumpLabel != nullptr) {
            lines[count++] = DumpLine{f.dumpLabel, tavel_text(value)};
        }
    });
    dumpDetails(__func__, "******************** ACS Connection Details ***********************", lines, count,
                "\n************************************* END ***********************");
}
