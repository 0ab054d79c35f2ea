/* The agent's bus service: name, dummyFunction, signal table, match rules. */
#ifndef TAVEL_SERVICE_H
#define TAVEL_SERVICE_H

#include <stdint.h>

#include "hbus.h"
#include "tavel_bus.h"

extern const hbusSignalEntry tavelSignalTable[TAVEL_SIGNAL_COUNT];

int start_tavel_service(void);
int register_tavel_service(void);
void tavel_addSignalMatches(void);
void tavel_removeSignalMatches(void);
void onVelkaTavelDispatch(hbusService *svc, hbusMessage *msg, hbusMessage *reply, uint8_t *handled);
uint32_t onDummyFunction(int32_t arg);
/* The operator methods (GetStatus, RunDebugCommand): answers msg when it
 * calls one of them, sets *handled and returns 1; 0 otherwise. */
int tavel_dispatchOperatorMethod(hbusService *svc, hbusMessage *msg, hbusMessage *reply, uint8_t *handled);
void tavel_handleSetLogLevel(void *conn, void *msg, const void *payload, uint32_t len);
void tavel_handleSetLogDestination(void *conn, void *msg, const void *payload, uint32_t len);

#endif
