// The agent's presence on the device bus: its name, the dummyFunction method
// and the signal table that routes the six subscribed signals.
#include <cstddef>
#include <stdio.h>

#include <new>

#include "logtext.h"
#include "tavel_service.h"
#include "tavel_signal.h"
#include "util.h"

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

// Nominal seconds between attempts to get back onto a lost bus: a restarted
// bus daemon is usually back within a second, and one that stays away costs
// four log lines a minute (its own and the bus layer's) at most.
constexpr unsigned kRejoinFirstDelay = 1;
constexpr unsigned kRejoinMaxDelay = 30;

// Adds the rules in table order, up to the first that fails (on a bus that
// went away the rest would fail alike, each with a line of its own), then
// hands the table over.  The number of rules added, TAVEL_SIGNAL_COUNT + 1
// when the table was taken too.
int addSignalMatches()
{
    int added = 0;
    for (const hbusSignalEntry &row : tavelSignalTable) {
        if (hbusAddInterestedSignal(MatchRule(row).text) != 0) {
            return added;
        }
        ++added;
    }
    return hbusSetInteresetedSignals(tavelSignalTable, TAVEL_SIGNAL_COUNT) == 0 ? added + 1 : added;
}

// The subscriptions come before the name: a sender that waits for the name to
// appear and then signals must find the agent listening already.  Without
// the name the rules added go again, so a second agent hears nothing.
int joinBus()
{
    int added = addSignalMatches();
    int rc = added > TAVEL_SIGNAL_COUNT ? register_tavel_service() : -1;
    if (rc != 0) {
        for (int i = 0; i < added && i < TAVEL_SIGNAL_COUNT; ++i) {
            hbusRemoveMatch(MatchRule(tavelSignalTable[i]).text);
        }
    }
    return rc;
}

// Back onto the bus after the connection ended, with growing pauses; the
// timer thread and the onboarding never wait for this thread meanwhile.
void rejoinBus()
{
    TAVEL_LOGE("bus connection lost; joining the bus again, first attempt in %u s\n", kRejoinFirstDelay);
    unsigned delay = kRejoinFirstDelay;
    unsigned waited = 0;
    for (int attempt = 1;; ++attempt) {
        tavel_sleep(delay);
        waited += delay;
        if (joinBus() == 0) {
            TAVEL_LOGN("bus connection back after %d attempt(s), %u s: name, service and signals in place\n",
                       attempt, waited);
            return;
        }
        delay = delay * 2 < kRejoinMaxDelay ? delay * 2 : kRejoinMaxDelay;
        TAVEL_LOGE("bus still unreachable after %d attempt(s), %u s; next attempt in %u s\n", attempt, waited,
                   delay);
    }
}

} // namespace

int start_tavel_service(void)
{
    int rc = joinBus();
    if (rc != 0) {
        hbusLogFatalReal(__LINE__, __func__, "failed to register tavel service\n");
        return rc;
    }
    // The main loop returns when the connection ends; the agent stays on the
    // bus for the life of the process.
    for (;;) {
        hbusMainLoop();
        rejoinBus();
    }
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
    addSignalMatches();
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
    hbusLogFatalReal(__LINE__, __func__, "unknown message: %s\n",
                     LogText<255>(hbusGetMethodName(msg)).c_str());
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
