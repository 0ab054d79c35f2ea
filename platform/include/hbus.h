/*
 * Device message-bus layer (hbus*) as the agent sees it.
 *
 * The project's stand-in (platform/hbus) runs on libdbus-1 and the system bus
 * (DBUS_SYSTEM_BUS_ADDRESS points it elsewhere).  Service objects live at
 * /velka/tavel with interface velka.tavel.  A signal's payload is its first
 * argument of type "ay"; a signal without such an argument reaches its
 * handler with no payload and length 0.  Signals are matched by member name.
 *
 * Rules for every operation below unless its comment says otherwise:
 * - Returns 0 on success, non-zero on an error (no bus, a NULL argument, a
 *   refusal by the bus).
 * - Strings passed in are only read during the call (hbusRegisterService's
 *   record excepted); nothing returned needs freeing.
 * - The set-up calls (hbusOwnName, hbusRegisterService, the match and
 *   signal-table calls) come from one thread before hbusMainLoop; they block
 *   until the bus answers.
 * - Handlers and the service's dispatch run on the thread in hbusMainLoop,
 *   one at a time, in the order the messages arrived.
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

/* Requests the well-known name; an error when another connection owns it. */
int hbusOwnName(const char *name);
/* Method calls to /velka/tavel go to svc->dispatch; a call it leaves
 * unhandled is answered with an UnknownMethod error by the layer.  Once per
 * connection: a second call on the same one fails. */
int hbusRegisterService(hbusService *svc);
/* Maps a bus layer status to the agent's result space; the identity on the
 * stand-in.  Pure: any thread, never blocks. */
int hbus_get_status_value(int status);
/* Adds a bus match rule; signals that match it are delivered to the table's
 * handlers.  hbusRemoveMatch removes the same rule text again: no signal
 * that only it matched is delivered afterwards. */
int hbusAddInterestedSignal(const char *matchRule);
/* The signal table: a signal reaches the handler of every row whose member
 * equals the signal's member, with the payload's bytes and count (payload
 * valid only during the handler).  The layer copies the rows; count 0
 * clears the table. */
int hbusSetInteresetedSignals(const hbusSignalEntry *table, int count);
int hbusRemoveMatch(const char *matchRule);

/* Receives and dispatches messages on the calling thread, on the connection
 * the calls before it set up (name, service, matches, signal table).
 * Returns 0 when that connection ends (the bus daemon stopped or dropped
 * it), and -1 at once when there is no such connection.  Blocks until then;
 * call it from one thread only.  The name, the service, the matches and the
 * table belong to the connection: after a return, the next hbus call
 * connects anew, and the caller takes its name, registers its service and
 * adds its matches and table again before it runs the loop once more. */
int hbusMainLoop(void);

/* The parcel calls below are only valid on the msg and reply a dispatch is
 * handed, during that dispatch, on the loop's thread.
 * Non-zero when msg calls method on service. */
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
/* The called method's name; never NULL (empty when there is none).  Owned
 * by msg: valid until the dispatch returns. */
const char *hbusGetMethodName(hbusMessage *msg);

/* Emits member from /velka/tavel, interface velka.tavel, one "ay" argument.
 * May be called from any thread, also while the main loop runs or the
 * connection is being made again.  Blocks until the message is written, or
 * for as long as a connection attempt takes when there is no connection;
 * -1 when the bus is gone (nothing is queued for later). */
int hbusSendSignal(const char *sender, const char *member, const void *data, uint32_t len);

/* A fatal record of the bus layer at the platform log; same rules as the
 * calls of platform_log.h. */
void hbusLogFatalReal(int line, const char *func, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
