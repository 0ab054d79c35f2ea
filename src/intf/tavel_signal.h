/* Handlers of the agent's working bus signals and the debug commands. */
#ifndef TAVEL_SIGNAL_H
#define TAVEL_SIGNAL_H

#include <stdint.h>

#include "tavel_bus.h"

void tavel_processDbgCmdSignal(void *conn, void *msg, const void *payload, uint32_t len);
void tavel_TR69BootstrapStatusSignal(void *conn, void *msg, const void *payload, uint32_t len);
void tavel_processSyncMgrSignal(void *conn, void *msg, const void *payload, uint32_t len);
void tavel_handleNTPTimeZoneUpdateSignal(void *conn, void *msg, const void *payload, uint32_t len);

/* cmdLine may be NULL; otherwise it is read up to its terminator or
 * TAVEL_DBG_CMDLINE_LEN bytes, whichever comes first. */
void tavel_handleDbgCmd(const char *cmdLine);
void tavel_printDbgCmdHelp(void);

/* Part of the device interface, kept although nothing in the agent calls
 * them: other device software links against these names. */
int tavel_sendMsg(const char *member, const void *data, uint32_t len);
int tavel_updateAcsStatus(int32_t type, const void *data, uint32_t len);

#endif
