// Applies the cloud endpoints received from the onboarding server.
#include <memory>

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
// values out.  The escaped copies, 4 KiB each, live on the heap (given back
// before the wait) and the call out of line: on the stack they were the
// deepest frame of the run, stack pages that stay dirty while the agent waits.
__attribute__((noinline)) void logCloudValues(const ServerData &serverData)
{
    const char *const values[] = {serverData.l1url, serverData.l2url, serverData.remotemappurl,
                                  serverData.kprconfigurl, tavel_secret(serverData.kprconfigapikey)};
    std::unique_ptr<LogValue> shown[5];
    for (size_t i = 0; i < 5; ++i) {
        shown[i] = std::make_unique<LogValue>(values[i]);
    }
    TAVEL_LOGN(" l1ClouldUrl %s l2ClouldUrl%s remotemappUrl %s kprConfigUrl[%s] kprConfigApikey[%s] \n",
               shown[0]->c_str(), shown[1]->c_str(), shown[2]->c_str(), shown[3]->c_str(), shown[4]->c_str());
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
