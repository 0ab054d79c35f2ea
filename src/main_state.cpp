// The agent's process-wide state records and their defaults.
#include <stdlib.h>
#include <string.h>

#include "files.h"
#include "main.h"
#include "reply_fields.h"
#include "util.h"

char g_certPath[28];
HttpInfo g_httpInfo;
ServerData g_serverData;
TimezoneData g_timezoneData;
char g_timezone[50];
ModelCapability _g_modelCapability;
SupportedCountryList g_supportedCountryList;
TavelCtrl g_tavelCtrl;
AcsBootstrapStatus g_acsBootstrapStatus;

void initAgentState(void)
{
    memset(g_httpInfo.url, 0, sizeof(g_httpInfo.url));
    tavel_copyText(g_httpInfo.authType, sizeof(g_httpInfo.authType), "None", sizeof(g_httpInfo.authType));
    tavel_copyText(g_httpInfo.userName, sizeof(g_httpInfo.userName), "None", sizeof(g_httpInfo.userName));
    tavel_copyText(g_httpInfo.password, sizeof(g_httpInfo.password), "None", sizeof(g_httpInfo.password));
    memset(g_httpInfo.x_api_key, 0, sizeof(g_httpInfo.x_api_key));
    tavel_copyText(g_httpInfo.caCertPath, sizeof(g_httpInfo.caCertPath), g_certPath, sizeof(g_certPath));
    g_httpInfo.timeout = TAVEL_DEFAULT_TIMEOUT;
    g_httpInfo.authEnabled = 0;

    tavel_resetServerData();

    tavel_resetRetryState();
    tavel_resetOnboardingState();
    memset(&g_acsBootstrapStatus, 0, sizeof(g_acsBootstrapStatus));

    tavel_makeDirs(TAVEL_MARKER_DIR);
}

void tavel_resetServerData(void)
{
    forEachHeapField(g_serverData, [](const ReplyField &, char *&field) {
        free(field); // null at start-up; set when tests reset the state
        field = static_cast<char *>(calloc(1, 1));
    });
    memset(g_serverData.countryCode, 0, sizeof(g_serverData.countryCode));
}
