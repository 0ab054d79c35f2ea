/*
 * The agent's names and payload layouts on the device bus.  The agent and
 * tavelctl (which plays the device's other modules) both take them from here,
 * so a sender and its receiver cannot drift apart.
 */
#ifndef TAVEL_BUS_H
#define TAVEL_BUS_H

#include <stdint.h>

/* The agent's well-known name, its object and the interface of its method. */
#define TAVEL_BUS_NAME "velka.tavel"
#define TAVEL_BUS_PATH "/velka/tavel"
#define TAVEL_BUS_INTERFACE "velka.tavel"
#define TAVEL_BUS_METHOD "dummyFunction"
/* Operator methods: GetStatus () -> s, the status snapshot as one JSON
 * object; RunDebugCommand (s command line) -> s, what the command printed. */
#define TAVEL_BUS_METHOD_STATUS "GetStatus"
#define TAVEL_BUS_METHOD_DBG "RunDebugCommand"

/* Members of the signals the agent subscribes to, in signal-table order. */
#define TAVEL_SIG_SET_LOG_LEVEL "setLogLevel"
#define TAVEL_SIG_SET_LOG_DESTINATION "setLogDestination"
#define TAVEL_SIG_DBG_CMD "sendDbgCmd"
#define TAVEL_SIG_BOOTSTRAP "tavelCfgmgrSignal"
#define TAVEL_SIG_SYNC_MGR "tavelSyngMgrSignal"
#define TAVEL_SIG_NTP_TIMEZONE "notifyNTPTimezoneUpdate"
#define TAVEL_SIGNAL_COUNT 6
/* The signal the agent itself would send (tavel_updateAcsStatus). */
#define TAVEL_SIG_SYNC "tavelSyncSignal"

/* sendDbgCmd: a module name field, then a command-line field, neither
 * necessarily terminated; only the exact length is accepted. */
#define TAVEL_DBG_MODULE "tavelAgent"
#define TAVEL_DBG_MODULE_LEN 64
#define TAVEL_DBG_CMDLINE_LEN 2048
#define TAVEL_DBG_PAYLOAD_LEN (TAVEL_DBG_MODULE_LEN + TAVEL_DBG_CMDLINE_LEN) /* 2112 */

/* tavelSyngMgrSignal and tavelSyncSignal: this header, then len bytes. */
typedef struct TavelSyncMsgHeader {
    int32_t type;
    int32_t len;
} TavelSyncMsgHeader;

#endif
