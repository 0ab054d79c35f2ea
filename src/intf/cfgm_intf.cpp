// Management-server object, its backup copy, the agent object, and the cloud
// settings' emptiness checks.  Every operation reads the data model afresh into
// a zeroed record on its own stack; nothing is cached between calls because
// other device software changes these objects at any time.
#include "cfgm_intf.h"

#include <string.h>

#include <memory>

#include "account_journal.h"
#include "agent_output.h"
#include "agent_status.h"
#include "dml.h"
#include "logtext.h"
#include "tavel_externalinft.h"
#include "util.h"

namespace
{

const char kConnStatusNames[CONN_STATUS_COUNT][32] = {
    "NoConnection",
    "ConnectionFailed_Error_110",
    "ConnectionSuccess",
    "ConnectionFailed_Error_204",
    "ConnectionFailed_Error_400",
    "ConnectionFailed_Error_401",
    "ConnectionFailed_Error_403",
    "ConnectionFailed_Error_500",
    "ConnectionFailed_Error_503",
    "ConnectionFailed_Error_no_cert",
    "ConnectionFailed_Error_curl",
};

/* The account as it was before tavel_setMgmtServerObj emptied it, kept
 * until the new one is written, so a stop in between can put it back. */
ManagementServerInfo g_accountBefore;
bool g_accountWriteUnderWay = false;

// The received account as the management-server record holds it; the rest of
// the record stays as it is.
void fillAccount(ManagementServerInfo *dst, const ServerData *account)
{
    tavel_copyText(dst->Username, sizeof(dst->Username), tavel_text(account->cdpusername), 255);
    tavel_copyText(dst->Password, sizeof(dst->Password), tavel_text(account->cdppassword), 255);
    tavel_copyText(dst->URL, sizeof(dst->URL), tavel_text(account->mgmtUrl), 1024);
}

bool acsConnFailed(const OnBoardingServerInfo &info)
{
    return strncmp(info.acsConnStatus, "ACSConnFailed", sizeof(info.acsConnStatus)) == 0 ||
           strncmp(info.acsConnStatus, "ACSRetryReq", sizeof(info.acsConnStatus)) == 0;
}

} // namespace

int getworkMode(void)
{
    char mode[DML_WORKMODE_LEN] = {0};
    char role[DML_WORKMODE_LEN] = {0};
    if (tavel_intf_getWorkMode(mode) != 0 || tavel_intf_getWorkRole(role) != 0) {
        TAVEL_LOGE("get of OID_WIFISERVICE failed\n");
        return -1;
    }
    TAVEL_LOGD("workMode= %s, workRole=%s\n", logText(mode).c_str(), logText(role).c_str());
    if (strcmp(mode, "RGW") == 0) {
        return 1;
    }
    if (strcmp(mode, "AP_Bridge") == 0 && strcmp(role, "Controller") == 0) {
        return 1;
    }
    if (strcmp(mode, "CFG") == 0) {
        return -1;
    }
    return 0;
}

void getOnBoardServerInfo(HttpInfo *serverInfo)
{
    OnBoardingServerInfo info;
    memset(&info, 0, sizeof(info));
    TAVEL_LOGN("getOnBoardServerInfo Entered ....\n");
    if (dml_getOnBoardingServerInfo(&info) == 0) {
        tavel_copyText(serverInfo->url, sizeof(serverInfo->url), info.URL, sizeof(serverInfo->url) - 1);
        serverInfo->enable = info.enable != 0 ? 1 : 0;
    } else {
        TAVEL_LOGE("get of OID_TAVELAGENT failed\n");
    }
    tavel_copyText(serverInfo->x_api_key, sizeof(serverInfo->x_api_key), info.apiKey,
                   sizeof(serverInfo->x_api_key) - 1);
    TAVEL_LOGD("getOnBoardServerInfo : serverInfo->url=%s \n", logText(serverInfo->url).c_str());
}

int isSameManagementAccount(const ServerData *account)
{
    ManagementServerInfo backup;
    memset(&backup, 0, sizeof(backup));
    if (dml_getDefaultManagmentInfo(&backup) != 0) {
        TAVEL_LOGE("get of MANAGEMENT Backup Obj failed\n");
        return 0;
    }
    if (backup.URL[0] == '\0') {
        return 0;
    }
    return strncmp(backup.URL, tavel_text(account->mgmtUrl), 1024) == 0 &&
                   strncmp(backup.Username, tavel_text(account->cdpusername), 255) == 0 &&
                   strncmp(backup.Password, tavel_text(account->cdppassword), 255) == 0
               ? 1
               : 0;
}

const char *getConnStatusString(int index)
{
    unsigned i = static_cast<unsigned>(index);
    return i < CONN_STATUS_COUNT ? kConnStatusNames[i] : nullptr;
}

int updateOnBoardServerStatus(int index)
{
    OnBoardingServerInfo info;
    memset(&info, 0, sizeof(info));
    TAVEL_LOGD("updateOnBoardServerStatus Entered ....\n");
    const char *name = getConnStatusString(index);
    if (name == nullptr) {
        TAVEL_LOGE("Invalied Connection Status \n");
        return -1;
    }
    TAVEL_LOGN("Conn status string:%s\n", name);
    if (dml_getOnBoardingServerInfo(&info) != 0) {
        TAVEL_LOGE("get of  TAVELAGENT failed\n");
        return -1;
    }
    tavel_copyText(info.onBoardStatus, sizeof(info.onBoardStatus), name, 64);
    if (dml_setOnBoardStatus(info.onBoardStatus) != 0) {
        TAVEL_LOGE("set of  TAVELAGENT failed\n");
    }
    return 0;
}

namespace
{

// Until the new account is written the device's only copy of either account
// would be in this process: the journal carries both across a power cut, so
// nothing is emptied that it does not cover.  The record (3 KiB) is on the
// heap and wiped before it goes: this is the deepest stack of the run, and
// stack pages stay dirty for all of the days the agent may then wait.
int journalAccounts(const ServerData *account, const ManagementServerInfo &before)
{
    auto journal = std::make_unique<AccountJournal>();
    fillAccount(&journal->next, account);
    journal->before = before;
    int journalled = tavel_journalWrite(*journal);
    explicit_bzero(journal.get(), sizeof(*journal));
    return journalled;
}

// Out of line for the same reason: the record is 2 KiB.
__attribute__((noinline)) int storeDescriptions(const ServerData *account)
{
    OnBoardingServerInfo agent;
    memset(&agent, 0, sizeof(agent));
    if (dml_getOnBoardingServerInfo(&agent) != 0) {
        TAVEL_LOGE("set of OID_TAVELAGENT failed\n");
        return -1;
    }
    tavel_copyText(agent.opDesc, sizeof(agent.opDesc), tavel_text(account->operdesc), 32);
    tavel_copyText(agent.subnetDesc, sizeof(agent.subnetDesc), tavel_text(account->subnetdesc), 32);
    if (dml_setOpSubnetDesc(agent.opDesc, agent.subnetDesc) != 0) {
        TAVEL_LOGE("set of OID_TAVELAGENT failed\n");
        return -1;
    }
    return 0;
}

} // namespace

int tavel_setMgmtServerObj(const ServerData *account)
{
    ManagementServerInfo acsCfg;
    memset(&acsCfg, 0, sizeof(acsCfg));

    if (dml_getManagementServerInfo(&acsCfg) != 0) {
        TAVEL_LOGE("get of OID_MANAGEMENTSERVER failed\n");
        return -1;
    }
    if (journalAccounts(account, acsCfg) != 0) {
        TAVEL_LOGE("account write not started: no journal to carry it across a power cut\n");
        return -1;
    }
    // The TR-069 client drops its connection when the URL disappears; only
    // then may it see the new account, or it would keep talking to the old ACS.
    TAVEL_LOGN("Setting URL in MangamentServerObject to NULL to wait for TR069 to close the socket\n");
    g_accountBefore = acsCfg;
    acsCfg.URL[0] = '\0';
    acsCfg.Username[0] = '\0';
    acsCfg.Password[0] = '\0';
    if (dml_setManagementServerInfo(&acsCfg) != 0) {
        TAVEL_LOGE("set of OID_MANAGEMENTSERVER failed\n");
        tavel_journalRemove();
        return -1;
    }
    g_accountWriteUnderWay = true;
    TAVEL_LOGN("Sleeping tavelAgent for 5 seconds ......\n");
    tavel_sleep(5);
    TAVEL_LOGN("End of tavelAgent sleep\n");

    memset(&acsCfg, 0, sizeof(acsCfg));
    if (dml_getManagementServerInfo(&acsCfg) != 0) {
        TAVEL_LOGE("get of OID_MANAGEMENTSERVER failed\n");
        return -1;
    }
    fillAccount(&acsCfg, account);
    int written = dml_setManagementServerInfo(&acsCfg);
    g_accountWriteUnderWay = false;
    // A failed write keeps the journal: the next start completes the account.
    if (written != 0) {
        TAVEL_LOGE("set of OID_MANAGEMENTSERVER failed\n");
        return -1;
    }
    tavel_journalRemove();
    tavel_statusAccount(1);
    TAVEL_LOGN("acsCfg.Username :%s \n", logText(acsCfg.Username).c_str());
    TAVEL_LOGN("acsCfg.URL :%s \n", logText(acsCfg.URL).c_str());
    TAVEL_LOGN("############# \n");
    return storeDescriptions(account);
}

void tavel_rollbackMgmtServerObj(void)
{
    if (!g_accountWriteUnderWay) {
        return;
    }
    g_accountWriteUnderWay = false;
    TAVEL_LOGE("management account write interrupted: restoring the previous account\n");
    // Restored, the journal is stale; not restored, it completes the new
    // account at the next start.  Either way the account is whole.
    if (dml_setManagementServerInfo(&g_accountBefore) != 0) {
        TAVEL_LOGE("set of OID_MANAGEMENTSERVER failed\n");
    } else {
        tavel_journalRemove();
    }
}

namespace
{

int mgmtServerUrlEmpty(const char *func)
{
    ManagementServerInfo acsCfg;
    memset(&acsCfg, 0, sizeof(acsCfg));
    if (dml_getManagementServerInfo(&acsCfg) != 0) {
        TAVEL_LOGE_AS(func, "get of OID_MANAGEMENTSERVER failed\n");
        return 1;
    }
    TAVEL_LOGN_AS(func, "Curent the acsCfg.URL is [%s]\n", logText(acsCfg.URL).c_str());
    if (strcmp(acsCfg.URL, TAVEL_FACTORY_ACS_URL) == 0 || strcmp(acsCfg.URL, " ") == 0) {
        TAVEL_LOGE_AS(func, "Go For Polling .... preCfgMgmtUrl:%s\n", logText(acsCfg.URL).c_str());
        return 1;
    }
    if (strstr(acsCfg.URL, "http") != nullptr && acsCfg.Username[0] != '\0' && acsCfg.Password[0] != '\0') {
        TAVEL_LOGE_AS(func, "No Polling .... VALID URL Config preset Already ... EXIT\n");
        return 0;
    }
    TAVEL_LOGE_AS(func, "Go For Polling .... EMPTY URL\n");
    return 1;
}

} // namespace

int tavel_isMgmtServerUrlEmpty(void)
{
    int empty = mgmtServerUrlEmpty(__func__);
    // The factory account counts as none: it is what onboarding replaces.
    tavel_statusAccount(empty == 0);
    return empty;
}

int tavel_isConnStatusFailed(void)
{
    OnBoardingServerInfo info;
    memset(&info, 0, sizeof(info));
    if (tavel_isMgmtServerUrlEmpty() == 1) {
        return 0;
    }
    if (dml_getOnBoardingServerInfo(&info) != 0) {
        dmlLogError(" get TavelAgentObject failed \n");
        return 1;
    }
    if (!acsConnFailed(info)) {
        return 0;
    }
    // One more chance for the TR-069 client before the account counts as bad.
    TAVEL_LOGE(" sleep for 5 mins to give time for CDP connetion to complete");
    tavel_sleep(300);
    TAVEL_LOGE(" sleep for 5 mins over check cdp connectoin ");
    memset(&info, 0, sizeof(info));
    if (dml_getOnBoardingServerInfo(&info) != 0) {
        return 0;
    }
    return acsConnFailed(info) ? 1 : 0;
}

namespace
{

// One cloud setting: its getter, the size the getter may fill, the name of its
// current-value line, the name in the other lines, and what a present value
// is called ("url", or "Apikey" for the key).
struct CloudCheck {
    int (*get)(char *, size_t);
    size_t bufSize;
    const char *name;
    const char *what;
    const char *kind;
    bool secret; // its value is masked for deployments
};

// A failed read counts as "not empty": onboarding is not started on the
// strength of a data model that could not be read.  The formats are literals
// here, so the compiler checks them; the names come from the fixed table
// entries below, never from the data model.
int isCloudSettingEmpty(const CloudCheck &c, const char *func)
{
    char buf[1024] = {0};
    if (c.get(buf, c.bufSize) == 0) {
        TAVEL_LOGN_AS(func, "unable to get %s\n", c.what);
        return 0;
    }
    LogText<sizeof(buf)> value(c.secret ? tavel_secret(buf) : buf, sizeof(buf));
    TAVEL_LOGN_AS(func, "current %s is [%s]\n", c.name, value.c_str());
    if (buf[0] == '\0') {
        TAVEL_LOGN_AS(func, " default value present go for polling ...%s %s\n", c.what, value.c_str());
        return 1;
    }
    TAVEL_LOGN_AS(func, " valid %s present no need to poll ...%s %s\n", c.kind, c.what, value.c_str());
    return 0;
}

} // namespace

int tavel_isL1ClouldUrlEmpty(void)
{
    return isCloudSettingEmpty({tavel_intf_getL1ClouldURL, 1024, "L1ClouldURL", "l1ClouldUrl", "url", false},
                               __func__);
}

int tavel_isL2ClouldUrlEmpty(void)
{
    return isCloudSettingEmpty({tavel_intf_getL2ClouldURL, 1024, "L2ClouldURL", "l2ClouldUrl", "url", false},
                               __func__);
}

int tavel_isRMAPPUrlEmpty(void)
{
    return isCloudSettingEmpty({tavel_intf_getRMAPPURL, 1024, "mappUrl", "mappUrl", "url", false}, __func__);
}

int tavel_isKPRconfigUrlEmpty(void)
{
    return isCloudSettingEmpty(
        {tavel_intf_getkprconfigUrl, 256, "kprConfigUrl", "kprConfigUrl", "url", false}, __func__);
}

int tavel_isKPRconfigApikeyEmpty(void)
{
    return isCloudSettingEmpty(
        {tavel_intf_getkprconfigApikey, 256, "kprConfigApikey", "kprConfigApikey", "Apikey", true}, __func__);
}
