/* Management-server object, its backup, the agent object, and the cloud
 * settings' emptiness checks. */
#ifndef TAVEL_CFGM_INTF_H
#define TAVEL_CFGM_INTF_H

#include "main.h"

int getworkMode(void);
void getOnBoardServerInfo(HttpInfo *serverInfo);
int isSameManagementAccount(const ServerData *account);
const char *getConnStatusString(int index);
int updateOnBoardServerStatus(int index);
int tavel_setMgmtServerObj(const ServerData *account);
/* Puts back the account tavel_setMgmtServerObj emptied, when a stop caught it
 * between emptying the object and writing the new account; else nothing. */
void tavel_rollbackMgmtServerObj(void);
int tavel_isMgmtServerUrlEmpty(void);
int tavel_isConnStatusFailed(void);

int tavel_isL1ClouldUrlEmpty(void);
int tavel_isL2ClouldUrlEmpty(void);
int tavel_isRMAPPUrlEmpty(void);
int tavel_isKPRconfigUrlEmpty(void);
int tavel_isKPRconfigApikeyEmpty(void);

#endif
