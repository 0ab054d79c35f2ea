// Process entry of tavelAgent: start-up, the onboarding-needed decision, and
// the idle loop.  Everything after the decision runs on the timer thread
// (main_timers.cpp) or on the bus thread (intf/tavel_service.cpp).
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "account_journal.h"
#include "agent_status.h"
#include "cfgm_intf.h"
#include "logtext.h"
#include "main.h"
#include "tavel_service.h"
#include "util.h"

namespace
{

// The five cloud settings in the order the decision tests them; the first one
// that is set ends the test.
bool allCloudSettingsEmpty()
{
    int (*const checks[])() = {tavel_isL1ClouldUrlEmpty, tavel_isL2ClouldUrlEmpty, tavel_isRMAPPUrlEmpty,
                               tavel_isKPRconfigUrlEmpty, tavel_isKPRconfigApikeyEmpty};
    for (auto check : checks) {
        if (check() != 1) {
            return false;
        }
    }
    return true;
}

bool onboardingNeeded()
{
    if (tavel_isMgmtServerUrlEmpty() == 1 && allCloudSettingsEmpty()) {
        return true;
    }
    if (tavel_isConnStatusFailed() == 1) {
        return true;
    }
    if (tavel_access(TAVEL_TIMEZONECONFIG_FILE) != 0 || tavel_access(TAVEL_CLOULDURLCONFIG_FILE) != 0) {
        return true;
    }
    return _g_modelCapability.isCCSyncRequired != 0 && tavel_access(TAVEL_CC_CONFIGURED_BY) != 0 &&
           tavel_access(TAVEL_COUNTRY_CODE_FILE) != 0;
}

void logSettings()
{
    TAVEL_LOGN("tavel_isMgmtServerUrlEmpty %d \n", tavel_isMgmtServerUrlEmpty());
    int l1 = tavel_isL1ClouldUrlEmpty();
    int l2 = tavel_isL2ClouldUrlEmpty();
    int mapp = tavel_isRMAPPUrlEmpty();
    TAVEL_LOGN(" isL1ClouldUrlEmpty %d isL2ClouldUrlEmpty %d isMAPPUrlEmpty %d \n", l1, l2, mapp);
    int kprUrl = tavel_isKPRconfigUrlEmpty();
    int kprKey = tavel_isKPRconfigApikeyEmpty();
    TAVEL_LOGN("isKPRconfigUrlEmpty %d isKPRconfigApikeyEmpty %d\n", kprUrl, kprKey);
    TAVEL_LOGN("access(TAVEL_TIMEZONECONFIG_FILE, F_OK) %d _g_modelCapability.isCCSyncRequired %d "
               "(access(TAVEL_CC_CONFIGURED_BY, F_OK) %d access(TAVEL_COUNTRY_CODE_FILE, F_OK) %d \n",
               tavel_access(TAVEL_TIMEZONECONFIG_FILE), _g_modelCapability.isCCSyncRequired,
               tavel_access(TAVEL_CC_CONFIGURED_BY), tavel_access(TAVEL_COUNTRY_CODE_FILE));
    TAVEL_LOGN("access(TAVEL_CLOULDURLCONFIG_FILE) [%d]\n", tavel_access(TAVEL_CLOULDURLCONFIG_FILE));
}

// A country code parked while a mobile-app onboarding ran is applied (or
// parked again) after a restart.
void applyParkedCountryCode()
{
    TAVEL_LOGN("Country code file is present, Reading from the file!!\n");
    char buf[4] = {0};
    if (tavel_getDataFromFile(buf, TAVEL_COUNTRY_CODE_FILE, sizeof(buf), 0) == -1) {
        return;
    }
    tavel_copyText(g_serverData.countryCode, sizeof(g_serverData.countryCode), buf, 3);
    if (validateCountryCode(g_serverData.countryCode) == 0) {
        TAVEL_LOGN("valid country code = %s!!\n", logText(g_serverData.countryCode).c_str());
        tavel_setCountryCode(g_serverData.countryCode);
    }
}

} // namespace

void *busThreadMain(void *)
{
    start_tavel_service();
    return nullptr;
}

void tavelInit(void)
{
    const char *certPath = dml_getHIECertifcatePath();
    tavel_copyText(g_certPath, sizeof(g_certPath), certPath, sizeof(g_certPath) - 1);
    initAgentState();
    // Before anything reads the management account: a write that a power
    // cut interrupted is finished first.
    tavel_journalRecover();
    getOnBoardServerInfo(&g_httpInfo);
    if (g_httpInfo.enable == 0) {
        TAVEL_STATUS(AgentState::Exiting, -1,
                     "agent disabled: Device.X_TAVEL_Agent.Enable is 0 or unreadable");
        tavel_exitProcess();
    }
    initTimerSig();
    tavel_startFirewallRules();
    dml_getModelCapability(&_g_modelCapability);
    if (_g_modelCapability.isCCSyncRequired != 0) {
        if (dml_getSupportedCountryList(&g_supportedCountryList) != 0) {
            TAVEL_LOGE("dml_getSupportedCountryList failed\n");
        } else {
            TAVEL_LOGE("dml get supported list success\n");
        }
    } else {
        TAVEL_LOGD("Capability: country code sync not required\n");
    }
}

int main()
{
#ifdef M_ARENA_MAX
    // Three threads that mostly sleep need no arena each: the per-thread
    // arenas would reserve 64 MiB of address space apiece on a 64-bit build
    // (1 MiB on 32-bit) for a few kilobytes of use.
    mallopt(M_ARENA_MAX, 1);
#endif
    // The timer and stop signals are taken by the timer thread alone; every
    // thread created from here on (bus, libraries) inherits them blocked.
    tavel_blockAgentSignals();

    // The root prefixes every device path; only a plain absolute path is
    // taken, so no value of it can turn a path into something else.  The
    // refusal goes to standard error alone: the platform log would be
    // written under the very root that was refused.
    if (tavel_rootInit() != 0) {
        fprintf(stderr,
                "tavelAgent: TAVEL_ROOT must be an absolute path of at most %d characters of "
                "A-Za-z0-9/._-; not starting\n",
                TAVEL_ROOT_MAX);
        return 0;
    }
    // Operators watch the dumps live.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    {
        AgentLockGuard guard;
        TAVEL_LOGD("TAVEL: Start \n");
        dml_init(2);
        // The layer's own waits (its store's lock) end on a stop as well.
        if (dml_setWaitCancel != nullptr) {
            dml_setWaitCancel(tavel_stopPending);
        }
        TAVEL_LOGE("TAVELAgent start...\n");
        TAVEL_LOGE("tavelInit Start ...  \n");
        tavelInit();
        TAVEL_LOGD("tavelInit End ...  \n");

        pthread_t busThread;
        if (tavel_startThread(&busThread, busThreadMain) != 0) {
            TAVEL_LOGE("PM pthread_create failed\n");
            tavel_awaitFirewallRules();
            tavel_exitProcess();
        }
        pthread_detach(busThread);

        logSettings();
        if (onboardingNeeded()) {
            TAVEL_LOGD("Connect to onBoardServer  ...  \n");
            TAVEL_STATUS(AgentState::Starting, -1, "onboarding needed");
            validateSystemTimeAndStartPolling();
        } else if (tavel_access(TAVEL_COUNTRY_CODE_FILE) == 0 && _g_modelCapability.isCCSyncRequired != 0) {
            applyParkedCountryCode();
        } else {
            TAVEL_LOGN("Valid Management URL is present ... EXIT TavelAgent!!\n");
            TAVEL_STATUS(AgentState::Exiting, -1,
                         "already onboarded: account, cloud settings and markers present");
            exitTavel();
        }
    }
    for (;;) {
        tavel_sleep(1000000);
    }
}
