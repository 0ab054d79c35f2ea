/*
 * Device message-bus layer (hbus*) as the agent sees it.
 *
 * The project's stand-in (platform/hbus) runs on libdbus-1 and the system bus
 * (DBUS_SYSTEM_BUS_ADDRESS points it elsewhere).  Service objects live at
 * /velka/tavel with interface velka.tavel.  A signal's payload is its first
 * argument of type "ay"; a signal without such an argument reaches its
 * handler with no payload and length 0.  Signals are matched by member name.
 *
 * All operations return 0 on success unless stated otherwise.
 */
#ifndef TAVEL_PLATFORM_HBUS_H
#define TAVEL_PLATFORM_HBUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An incoming message or a reply under construction; owned by the layer. */
typedef struct hbusMessage hbusMessage;

typedef uint32_t (*hbusMethodCallback)(int32_t arg);

struct hbusService;
typedef void (*hbusDispatchFn)(struct hbusService *svc, hbusMessage *msg, hbusMessage *reply,
                               uint8_t *handled);

/* Handed to hbusRegisterService; the layer keeps the pointer for the life of
 * the process. */
typedef struct hbusService {
    const char *busName;
    hbusDispatchFn dispatch;
    hbusMethodCallback method;
} hbusService;

/* Signal handler: the first two arguments belong to the layer (the bus
 * connection and the message); payload may be NULL when len is 0. */
typedef void (*hbusSignalHandler)(void *conn, void *msg, const void *payload, uint32_t len);

/* One row of a signal table: 136 bytes on 32-bit targets.  path, when not
 * empty, restricts the row to signals sent from that object path; member is
 * compared within its 64 bytes. */
typedef struct hbusSignalEntry {
    char path[64];
    char member[64];
    hbusSignalHandler handler;
    int32_t id;
} hbusSignalEntry;

int hbusOwnName(const char *name);
/* Method calls to /velka/tavel go to svc->dispatch; a call it leaves
 * unhandled is answered with an UnknownMethod error by the layer. */
int hbusRegisterService(hbusService *svc);
int hbus_get_status_value(int status);
int hbusAddInterestedSignal(const char *matchRule);
int hbusSetInteresetedSignals(const hbusSignalEntry *table, int count);
int hbusRemoveMatch(const char *matchRule);

/* Receives and dispatches messages; returns only when the connection ends. */
int hbusMainLoop(void);

/* Non-zero when msg calls method on service. */
int hbusIsMethodCall(hbusMessage *msg, const char *service, const char *method);
int hbusReadParcelInt32(hbusMessage *msg, int32_t *value);
int hbusWriteParcelUint32(hbusMessage *reply, uint32_t value);
/* Reads the call's next argument as a string into buf, size bytes, always
 * terminated (a longer string is cut).  Returns 0; -1 when the argument is
 * missing or not a string, buf then holds "" (when size > 0) and the layer
 * answers the call with an InvalidArgs error.  buf is the caller's; the call
 * copies and does not block.  Called from the dispatch function only, on the
 * thread that runs hbusMainLoop. */
int hbusReadParcelString(hbusMessage *msg, char *buf, uint32_t size);
/* Appends a string to the reply; the layer copies text, which may be freed
 * on return.  Bytes that would make it invalid UTF-8 travel as '?'.  Returns
 * 0; -1 when text is NULL or memory runs out, and the caller then gets a
 * NoMemory error instead of the reply.  Same thread rules as above. */
int hbusWriteParcelString(hbusMessage *reply, const char *text);
/* The called method's name; never NULL. */
const char *hbusGetMethodName(hbusMessage *msg);

/* Emits member from /velka/tavel, interface velka.tavel, one "ay" argument.
 * May be called from any thread. */
int hbusSendSignal(const char *sender, const char *member, const void *data, uint32_t len);

void hbusLogFatalReal(int line, const char *func, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
