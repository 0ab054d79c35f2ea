// The agent's operator methods on the bus: its status and debug commands
// whose output comes back to the caller.
#include "agent_output.h"
#include "agent_status.h"
#include "tavel_service.h"
#include "tavel_signal.h"

namespace
{

// A debug command's answer holds its dumps: a few KiB.  A runaway one is
// cut rather than growing a bus message without bound.
constexpr size_t kDbgOutputMax = 16384;

} // namespace

int tavel_dispatchOperatorMethod(hbusService *svc, hbusMessage *msg, hbusMessage *reply, uint8_t *handled)
{
    if (hbusIsMethodCall(msg, svc->busName, TAVEL_BUS_METHOD_STATUS)) {
        *handled = 1;
        hbusWriteParcelString(reply, tavel_statusJson().c_str());
        return 1;
    }
    if (hbusIsMethodCall(msg, svc->busName, TAVEL_BUS_METHOD_DBG)) {
        *handled = 1;
        char cmdLine[TAVEL_DBG_CMDLINE_LEN];
        if (hbusReadParcelString(msg, cmdLine, sizeof(cmdLine)) != 0) {
            return 1; // answered with InvalidArgs by the bus layer
        }
        // The agent's own standard output gets the lines as for the signal;
        // the caller gets the same lines back.
        OutputCapture capture(kDbgOutputMax);
        tavel_handleDbgCmd(cmdLine);
        hbusWriteParcelString(reply, capture.text().c_str());
        return 1;
    }
    return 0;
}
