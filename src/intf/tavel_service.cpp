// The agent's presence on the device bus: its name, the dummyFunction method
// and the signal table that routes the six subscribed signals.
#include <cstddef>
#include <stdio.h>

#include <new>

#include "tavel_service.h"
#include "tavel_signal.h"

const hbusSignalEntry tavelSignalTable[TAVEL_SIGNAL_COUNT] = {
    {"", TAVEL_SIG_SET_LOG_LEVEL, tavel_handleSetLogLevel, 0},
    {"", TAVEL_SIG_SET_LOG_DESTINATION, tavel_handleSetLogDestination, 1},
    {"", TAVEL_SIG_DBG_CMD, tavel_processDbgCmdSignal, 2},
    {"", TAVEL_SIG_BOOTSTRAP, tavel_TR69BootstrapStatusSignal, 3},
    {"", TAVEL_SIG_SYNC_MGR, tavel_processSyncMgrSignal, 4},
    {"", TAVEL_SIG_NTP_TIMEZONE, tavel_handleNTPTimeZoneUpdateSignal, 5},
};
static_assert(sizeof(void *) != 4 || sizeof(tavelSignalTable) == TAVEL_SIGNAL_COUNT * size_t{136},
              "the bus layer expects 136-byte rows on 32-bit targets");

namespace
{

// The bus match rule of one table row; the bus layer copies it.
struct MatchRule {
    explicit MatchRule(const hbusSignalEntry &row)
    {
        snprintf(text, sizeof(text), "type='signal',member='%.*s'", static_cast<int>(sizeof(row.member)),
                 row.member);
    }
    char text[sizeof("type='signal',member=''") + sizeof(hbusSignalEntry::member)];
};

// The bus layer keeps the record for the life of the process, so it is made
// once and never freed, even if registration is attempted again.
hbusService *g_tavelService = nullptr;

} // namespace

int start_tavel_service(void)
{
    int rc = register_tavel_service();
    if (rc != 0) {
        hbusLogFatalReal(__LINE__, __func__, "failed to register tavel service\n");
        return rc;
    }
    tavel_addSignalMatches();
    hbusMainLoop();
    return hbus_get_status_value(0);
}

int register_tavel_service(void)
{
    int rc = hbusOwnName(TAVEL_BUS_NAME);
    if (rc != 0) {
        hbusLogFatalReal(__LINE__, __func__, "failed to request bus name for tavel service\n");
        return rc;
    }
    if (g_tavelService == nullptr) {
        g_tavelService = new (std::nothrow) hbusService();
    }
    if (g_tavelService == nullptr) {
        hbusLogFatalReal(__LINE__, __func__, "failed to register VelkaTavel interface\n");
        return 4;
    }
    g_tavelService->busName = TAVEL_BUS_NAME;
    g_tavelService->dispatch = onVelkaTavelDispatch;
    g_tavelService->method = onDummyFunction;
    rc = hbusRegisterService(g_tavelService);
    if (rc != 0) {
        hbusLogFatalReal(__LINE__, __func__, "failed to register VelkaTavel interface\n");
        return rc;
    }
    return hbus_get_status_value(0);
}

void tavel_addSignalMatches(void)
{
    for (const hbusSignalEntry &row : tavelSignalTable) {
        hbusAddInterestedSignal(MatchRule(row).text);
    }
    hbusSetInteresetedSignals(tavelSignalTable, TAVEL_SIGNAL_COUNT);
}

void tavel_removeSignalMatches(void)
{
    for (const hbusSignalEntry &row : tavelSignalTable) {
        hbusRemoveMatch(MatchRule(row).text);
    }
}

void onVelkaTavelDispatch(hbusService *svc, hbusMessage *msg, hbusMessage *reply, uint8_t *handled)
{
    if (hbusIsMethodCall(msg, svc->busName, TAVEL_BUS_METHOD)) {
        int32_t arg = 0;
        hbusReadParcelInt32(msg, &arg);
        uint32_t result = svc->method(arg);
        *handled = 1;
        hbusWriteParcelUint32(reply, result);
        return;
    }
    if (tavel_dispatchOperatorMethod(svc, msg, reply, handled) != 0) {
        return;
    }
    hbusLogFatalReal(__LINE__, __func__, "unknown message: %s\n", hbusGetMethodName(msg));
}

uint32_t onDummyFunction(int32_t /*arg*/)
{
    return 1;
}

void tavel_handleSetLogLevel(void * /*conn*/, void * /*msg*/, const void * /*payload*/, uint32_t /*len*/) {}

void tavel_handleSetLogDestination(void * /*conn*/, void * /*msg*/, const void * /*payload*/,
                                   uint32_t /*len*/)
{
}
