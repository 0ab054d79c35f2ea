// Applies the cloud endpoints received from the onboarding server.
#include "agent_output.h"
#include "files.h"
#include "logtext.h"
#include "main.h"
#include "tavel_externalinft.h"
#include "util.h"

namespace
{

// The notice shows every value, the API key included, as the device's log
// always has (masked for deployments); the connection dumps leave the cloud
// values out.  Out of line so that its five escaped copies (a large frame)
// are gone before the setters below run, instead of pushing them, and the
// stack pages they dirty, further down.
__attribute__((noinline)) void logCloudValues(const ServerData &serverData)
{
    TAVEL_LOGN(" l1ClouldUrl %s l2ClouldUrl%s remotemappUrl %s kprConfigUrl[%s] kprConfigApikey[%s] \n",
               LogValue(serverData.l1url).c_str(), LogValue(serverData.l2url).c_str(),
               LogValue(serverData.remotemappurl).c_str(), LogValue(serverData.kprconfigurl).c_str(),
               LogValue(tavel_secret(serverData.kprconfigapikey)).c_str());
}

} // namespace

void tavel_setCloudMAPPURL(ServerData serverData)
{
    logCloudValues(serverData);

    // An empty value (absent, or "NA" from the server) leaves the setting as
    // it is; a failed write is logged by its setter and the rest still go out.
    struct {
        const char *value;
        int (*set)(const char *);
    } const writes[] = {
        {serverData.l1url, tavel_intf_setL1ClouldURL},
        {serverData.l2url, tavel_intf_setL2ClouldURL},
        {serverData.remotemappurl, tavel_intf_setRMAPPURL},
        {serverData.kprconfigurl, tavel_intf_setkprconfigUrl},
        {serverData.kprconfigapikey, tavel_intf_setkprconfigApikey},
    };
    for (const auto &w : writes) {
        if (w.value != nullptr && w.value[0] != '\0') {
            w.set(w.value);
        }
    }
    tavel_touch(TAVEL_CLOULDURLCONFIG_FILE);
}
