// Handlers of the agent's working bus signals, the debug-command interpreter
// and the sender of the agent's own sync signal.
//
// Payloads come from other processes and are trusted for nothing: a handler
// never reads beyond the length it was given.  A payload too short for what
// its handler reads is dropped with one error-level line naming the handler
// and the byte counts ("signal ignored: payload of %u bytes, %u needed"), so
// a misbehaving sender shows up in the log without disturbing the agent.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "agent_output.h"
#include "hbus.h"
#include "logtext.h"
#include "main.h"
#include "tavel_service.h"
#include "tavel_signal.h"
#include "util.h"

// A macro, so the line names the handler and its source line.
#define TAVEL_LOG_SHORT_PAYLOAD(len, needed)                                                                 \
    TAVEL_LOGE("signal ignored: payload of %u bytes, %u needed\n", static_cast<unsigned>(len),               \
               static_cast<unsigned>(needed))

namespace
{

// Decimal value after optional blanks and sign; 0 without digits.  Values
// beyond 32 bits saturate instead of overflowing.
int32_t parseSeconds(const char *text)
{
    long value = strtol(text, nullptr, 10);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    if (value < INT32_MIN) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(value);
}

} // namespace

void tavel_processDbgCmdSignal(void * /*conn*/, void * /*msg*/, const void *payload, uint32_t len)
{
    tavel_out("enter %s.\n", "tavel_processDbgCmdSignal");
    if (payload == nullptr || len != TAVEL_DBG_PAYLOAD_LEN) {
        tavel_out("%s, parameter mismatched.\n", "tavel_processDbgCmdSignal");
        return;
    }
    const char *module = static_cast<const char *>(payload);
    // The name and its terminator lie well inside the 64-byte field, and a
    // name without a terminator cannot match.
    if (memcmp(module, TAVEL_DBG_MODULE, sizeof(TAVEL_DBG_MODULE)) != 0) {
        tavel_out("%s, ignore.\n", "tavel_processDbgCmdSignal");
        return;
    }
    const char *cmdLine = module + TAVEL_DBG_MODULE_LEN;
    tavel_out("tavel_processDbgCmdSignal cmd: %s.\n",
              LogText<TAVEL_DBG_CMDLINE_LEN>(cmdLine, TAVEL_DBG_CMDLINE_LEN).c_str());
    tavel_handleDbgCmd(cmdLine);
}

void tavel_handleDbgCmd(const char *cmdLine)
{
    AgentLockGuard guard;
    if (cmdLine == nullptr) {
        tavel_printDbgCmdHelp();
        return;
    }
    // The command field need not be terminated; work on a terminated copy.
    char cmd[TAVEL_DBG_CMDLINE_LEN + 1];
    size_t n = strnlen(cmdLine, TAVEL_DBG_CMDLINE_LEN);
    memcpy(cmd, cmdLine, n);
    cmd[n] = '\0';

    tavel_out("debug cmdLine = %s.\n", logText(cmd).c_str());
    if (strcmp(cmd, "httpinfo") == 0) {
        dumpHttpConnectionDetails();
    } else if (strcmp(cmd, "acsinfo") == 0) {
        tavel_out("printing ACS Details...\n");
        dumpAcsConnectionDetails();
        tavel_out("After printing ACS Details...\n");
    } else if (strstr(cmd, "setTimeout") != nullptr) {
        // The value sits at a fixed position, wherever the word stands; a
        // shorter line has no value.
        const char *value = n >= 11 ? cmd + 11 : "";
        tavel_out("cmdLine+11 = %s.\n", LogText<TAVEL_DBG_CMDLINE_LEN>(value).c_str());
        g_retryTimeout = parseSeconds(value);
    } else {
        tavel_printDbgCmdHelp();
    }
}

void tavel_printDbgCmdHelp(void)
{
    tavel_out("%-30s\t%-60s\n", "httpinfo", "Dump Http Connection Details. ");
    tavel_out("%-30s\t%-60s\n", "acsinfo", "Dump ACS Connection Details. ");
}

void tavel_TR69BootstrapStatusSignal(void * /*conn*/, void * /*msg*/, const void *payload, uint32_t len)
{
    AgentLockGuard guard;
    TAVEL_LOGN("tavel_TR69BootStrapStatusSignal Entered ... \n");
    int32_t status;
    if (payload == nullptr || len < sizeof(status)) {
        TAVEL_LOG_SHORT_PAYLOAD(len, sizeof(status));
        return;
    }
    memcpy(&status, payload, sizeof(status));
    AcsBootstrapStatus bootstrap;
    memset(&bootstrap, 0, sizeof(bootstrap));
    bootstrap.status = status;
    updateStatus2OnBoardServer(&bootstrap);
}

void tavel_processSyncMgrSignal(void * /*conn*/, void * /*msg*/, const void *payload, uint32_t len)
{
    if (payload == nullptr || len == 0) {
        TAVEL_LOGD("msg is NULL\n");
        return;
    }
    TavelSyncMsgHeader header;
    if (len < sizeof(header)) {
        TAVEL_LOG_SHORT_PAYLOAD(len, sizeof(header));
        return;
    }
    memcpy(&header, payload, sizeof(header));
    if (header.len == 0) {
        TAVEL_LOGN("type = %d, len = %d\n", header.type, 0);
        return;
    }
    if (header.type == 1) {
        TAVEL_LOGN("Received ACS Connection Status\n");
    } else {
        TAVEL_LOGD("unknown type %d\n", header.type);
    }
}

void tavel_handleNTPTimeZoneUpdateSignal(void * /*conn*/, void * /*msg*/, const void *payload, uint32_t len)
{
    AgentLockGuard guard;
    if (payload == nullptr || len == 0) {
        TAVEL_LOG_SHORT_PAYLOAD(len, 1);
        return;
    }
    // The sender may omit the terminator; take what fits up to the first NUL.
    size_t limit = sizeof(g_timezone) - 1;
    if (len < limit) {
        limit = len;
    }
    const char *text = static_cast<const char *>(payload);
    size_t n = strnlen(text, limit);
    memcpy(g_timezone, text, n);
    memset(g_timezone + n, 0, sizeof(g_timezone) - n);
    log_log(5, __func__, __LINE__, "%s, value received from hmsd module is %s.\n",
            "tavel_handleNTPTimeZoneUpdateSignal", logText(g_timezone).c_str());
}

// Not called by the agent; kept as part of the device interface (tavel_signal.h).
int tavel_sendMsg(const char *member, const void *data, uint32_t len)
{
    int rc = hbusSendSignal(TAVEL_BUS_NAME, member, data, len);
    if (rc != 0) {
        TAVEL_LOGE("hbus send signal failed, ret = [%d]\n", rc);
        return -1;
    }
    TAVEL_LOGE("hbus send success, type = [%s]\n", member);
    return 0;
}

// Not called by the agent; kept as part of the device interface (tavel_signal.h).
int tavel_updateAcsStatus(int32_t type, const void *data, uint32_t len)
{
    TavelSyncMsgHeader header;
    // The length travels as a signed 32-bit field.
    if (len > static_cast<uint32_t>(INT32_MAX) - sizeof(header) || (data == nullptr && len > 0)) {
        return -1;
    }
    uint32_t total = len + static_cast<uint32_t>(sizeof(header));
    unsigned char *block = static_cast<unsigned char *>(calloc(1, total));
    if (block == nullptr) {
        return -1;
    }
    header.type = type;
    header.len = static_cast<int32_t>(len);
    memcpy(block, &header, sizeof(header));
    TAVEL_LOGN("tavelMsg: type = %d, len = %d\n", type, header.len);
    if (len > 0) {
        memcpy(block + sizeof(header), data, len);
    }
    int rc = tavel_sendMsg(TAVEL_SIG_SYNC, block, total);
    free(block);
    return rc;
}
