// Stand-in for the device's bus layer, on libdbus-1 and the system bus.
//
// Threading: one thread (the agent's bus thread) owns the name, registers the
// service, adds the match rules and then lives in hbusMainLoop.  Any thread
// may call hbusSendSignal.  libdbus's own blocking loop would keep such a
// sender waiting until the next incoming message (the loop holds the I/O
// path while it sleeps in poll), so the main loop polls the connection's
// socket itself together with an eventfd that libdbus pokes whenever another
// thread queued outgoing data or read incoming messages.  The loop sleeps in
// poll with no time-out: an idle agent costs no CPU.
//
// When the bus daemon goes away the main loop returns and the connection is
// forgotten; the next operation, from whichever thread, connects anew.  The
// name, the service, the matches and the filter belong to a connection, so
// the caller sets them up again before it runs the loop once more.
//
// Method calls reach /velka/tavel only.  When the service's dispatch leaves
// a call unhandled, the layer answers it with an UnknownMethod error, so a
// caller learns at once instead of waiting for its own reply time-out.
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <dbus/dbus.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dbus_guards.h"
#include "hbus.h"
#include "platform_log.h"

#define HBUS_OBJECT_PATH "/velka/tavel"
#define HBUS_INTERFACE "velka.tavel"

struct hbusMessage {
    DBusMessage *msg;
    DBusMessageIter readIter;
    DBusMessageIter writeIter;
    bool readStarted;
    bool writeStarted;
    bool readFailed;  // an argument was missing or of another type
    bool writeFailed; // out of memory while building the reply
};

namespace
{

using tavel::platform::ErrorGuard;
using tavel::platform::MessagePtr;

// One connection to the bus daemon and what the layer has set up on it.  It
// is shared: whoever drops the last reference (the main loop that saw it end,
// or a sender still using it) closes it, so no thread ever polls or writes a
// descriptor that another one has closed and the kernel may have reused.
struct Link {
    explicit Link(DBusConnection *c) : conn(c) {}
    ~Link()
    {
        dbus_connection_close(conn);
        dbus_connection_unref(conn);
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    DBusConnection *conn;
    // Both belong to the connection: a new one needs them again.
    bool objectRegistered = false;
    bool filterAdded = false;
};
using LinkPtr = std::shared_ptr<Link>;

// The holder and the wake-up descriptor are never destroyed or closed: exit()
// may come from any thread while the bus thread still sits in poll, and the
// kernel releases both.
std::mutex g_connMutex;
LinkPtr &g_link = *new LinkPtr();
int g_wakeFd = -1;
std::once_flag g_initOnce;

// Never destroyed, like the connection: exit() runs static destructors while
// the bus thread may still be dispatching a signal through the table.
std::vector<hbusSignalEntry> &g_signalTable = *new std::vector<hbusSignalEntry>();

void wake(void *)
{
    uint64_t one = 1;
    ssize_t n = write(g_wakeFd, &one, sizeof(one));
    (void)n; // a full counter already means "wake up"
}

void onDispatchStatus(DBusConnection *, DBusDispatchStatus status, void *)
{
    if (status == DBUS_DISPATCH_DATA_REMAINS) {
        wake(nullptr);
    }
}

void initOnce()
{
    dbus_threads_init_default();
    g_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_wakeFd < 0) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: eventfd failed: %s\n", strerror(errno));
    }
}

LinkPtr openLink()
{
    ErrorGuard err;
    DBusConnection *conn = dbus_bus_get_private(DBUS_BUS_SYSTEM, err.get());
    if (conn == nullptr) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: cannot connect to the system bus: %s\n", err.message());
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    dbus_connection_set_wakeup_main_function(conn, wake, nullptr, nullptr);
    dbus_connection_set_dispatch_status_function(conn, onDispatchStatus, nullptr, nullptr);
    return std::make_shared<Link>(conn);
}

// The live connection, made on demand: every operation goes through here, so
// the first caller after a start or after the bus went away, whichever it is,
// connects.  The connecting itself runs without the lock, so a bus daemon
// slow to answer holds up only the caller that met it.
LinkPtr currentLink()
{
    std::call_once(g_initOnce, initOnce);
    if (g_wakeFd < 0) {
        return nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(g_connMutex);
        if (g_link && dbus_connection_get_is_connected(g_link->conn)) {
            return g_link;
        }
        g_link.reset();
    }
    LinkPtr fresh = openLink();
    std::lock_guard<std::mutex> lock(g_connMutex);
    if (!g_link) {
        g_link = fresh;
    }
    // Another thread won the race: its connection serves, this one closes.
    return g_link;
}

// Forgets a connection that ended, unless a newer one replaced it already.
void retire(const LinkPtr &ended)
{
    std::lock_guard<std::mutex> lock(g_connMutex);
    if (g_link == ended) {
        g_link.reset();
    }
}

// The first argument's bytes when it is an "ay"; NULL and 0 otherwise.
void signalPayload(DBusMessage *msg, const void **payload, uint32_t *len)
{
    *payload = nullptr;
    *len = 0;
    DBusMessageIter iter;
    if (!dbus_message_iter_init(msg, &iter) || dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&iter) != DBUS_TYPE_BYTE) {
        return;
    }
    DBusMessageIter sub;
    dbus_message_iter_recurse(&iter, &sub);
    const unsigned char *bytes = nullptr;
    int n = 0;
    dbus_message_iter_get_fixed_array(&sub, &bytes, &n);
    if (bytes != nullptr && n > 0) {
        *payload = bytes;
        *len = static_cast<uint32_t>(n);
    }
}

bool rowMatches(const hbusSignalEntry &row, const char *member, const char *path)
{
    size_t memberLen = strnlen(row.member, sizeof(row.member));
    if (strlen(member) != memberLen || memcmp(member, row.member, memberLen) != 0) {
        return false;
    }
    // An empty path field matches any sender object; otherwise only that one.
    size_t pathLen = strnlen(row.path, sizeof(row.path));
    if (pathLen == 0) {
        return true;
    }
    return path != nullptr && strlen(path) == pathLen && memcmp(path, row.path, pathLen) == 0;
}

DBusHandlerResult onSignal(DBusConnection *conn, DBusMessage *msg, void *)
{
    if (dbus_message_get_type(msg) != DBUS_MESSAGE_TYPE_SIGNAL ||
        dbus_message_has_path(msg, DBUS_PATH_LOCAL)) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char *member = dbus_message_get_member(msg);
    if (member == nullptr) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char *path = dbus_message_get_path(msg);
    for (const hbusSignalEntry &row : g_signalTable) {
        if (row.handler != nullptr && rowMatches(row, member, path)) {
            const void *payload;
            uint32_t len;
            signalPayload(msg, &payload, &len);
            row.handler(conn, msg, payload, len);
            return DBUS_HANDLER_RESULT_HANDLED;
        }
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

void sendOrDrop(DBusConnection *conn, DBusMessage *msg)
{
    if (msg == nullptr || !dbus_connection_send(conn, msg, nullptr)) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: out of memory for a reply\n");
    }
}

DBusHandlerResult onObjectMessage(DBusConnection *conn, DBusMessage *msg, void *data)
{
    hbusService *svc = static_cast<hbusService *>(data);
    if (dbus_message_get_type(msg) != DBUS_MESSAGE_TYPE_METHOD_CALL || svc == nullptr) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    MessagePtr reply(dbus_message_new_method_return(msg));
    if (!reply) {
        return DBUS_HANDLER_RESULT_NEED_MEMORY;
    }
    hbusMessage in{};
    in.msg = msg;
    hbusMessage out{};
    out.msg = reply.get();
    uint8_t handled = 0;
    if (svc->dispatch != nullptr) {
        svc->dispatch(svc, &in, &out, &handled);
    }
    if (dbus_message_get_no_reply(msg)) {
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (handled == 0) {
        const char *member = dbus_message_get_member(msg);
        MessagePtr error(dbus_message_new_error_printf(msg, DBUS_ERROR_UNKNOWN_METHOD, "No method %s on %s",
                                                       member != nullptr ? member : "", svc->busName));
        sendOrDrop(conn, error.get());
    } else if (in.readFailed) {
        MessagePtr error(dbus_message_new_error(msg, DBUS_ERROR_INVALID_ARGS, "Unexpected arguments"));
        sendOrDrop(conn, error.get());
    } else if (out.writeFailed) {
        MessagePtr error(dbus_message_new_error(msg, DBUS_ERROR_NO_MEMORY, "Reply could not be built"));
        sendOrDrop(conn, error.get());
    } else {
        sendOrDrop(conn, reply.get());
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

const DBusObjectPathVTable kObjectVTable = {nullptr, onObjectMessage, nullptr, nullptr, nullptr, nullptr};

// Moves the read cursor to the call's next argument; false (and the call
// marked for an InvalidArgs answer) when there is none of that type.
bool nextArgument(hbusMessage *msg, int type)
{
    bool have;
    if (!msg->readStarted) {
        msg->readStarted = true;
        have = dbus_message_iter_init(msg->msg, &msg->readIter);
    } else {
        have = dbus_message_iter_has_next(&msg->readIter) && dbus_message_iter_next(&msg->readIter);
    }
    if (!have || dbus_message_iter_get_arg_type(&msg->readIter) != type) {
        msg->readFailed = true;
        return false;
    }
    return true;
}

int appendReply(hbusMessage *reply, int type, const void *value)
{
    if (reply == nullptr || reply->msg == nullptr) {
        return -1;
    }
    if (!reply->writeStarted) {
        reply->writeStarted = true;
        dbus_message_iter_init_append(reply->msg, &reply->writeIter);
    }
    if (!dbus_message_iter_append_basic(&reply->writeIter, type, value)) {
        reply->writeFailed = true;
        return -1;
    }
    return 0;
}

} // namespace

extern "C" {

int hbusOwnName(const char *name)
{
    LinkPtr link = currentLink();
    if (!link || name == nullptr) {
        return -1;
    }
    DBusConnection *conn = link->conn;
    ErrorGuard err;
    int rc = dbus_bus_request_name(conn, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, err.get());
    if (rc == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER || rc == DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
        return 0;
    }
    if (rc == -1) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: requesting %s failed: %s\n", name, err.message());
    } else {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: %s is owned by another connection\n", name);
    }
    return -1;
}

int hbusRegisterService(hbusService *svc)
{
    LinkPtr link = currentLink();
    if (!link || svc == nullptr || link->objectRegistered) {
        return -1;
    }
    ErrorGuard err;
    if (!dbus_connection_try_register_object_path(link->conn, HBUS_OBJECT_PATH, &kObjectVTable, svc,
                                                  err.get())) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: cannot register %s: %s\n", HBUS_OBJECT_PATH,
                err.message());
        return -1;
    }
    link->objectRegistered = true;
    return 0;
}

int hbus_get_status_value(int status)
{
    return status;
}

int hbusAddInterestedSignal(const char *matchRule)
{
    LinkPtr link = currentLink();
    if (!link || matchRule == nullptr) {
        return -1;
    }
    // Sent without waiting for the daemon's answer: it handles one
    // connection's messages in order, so the rule is in place before anything
    // sent on this connection later (the name request, a signal) is handled,
    // and a blocking round trip per rule was most of joining the bus.  The
    // price: a rule the daemon refuses goes unreported.
    DBusConnection *conn = link->conn;
    dbus_bus_add_match(conn, matchRule, nullptr);
    dbus_connection_flush(conn);
    if (!dbus_connection_get_is_connected(conn)) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: add match \"%s\" failed: not connected\n", matchRule);
        return -1;
    }
    return 0;
}

int hbusRemoveMatch(const char *matchRule)
{
    LinkPtr link = currentLink();
    if (!link || matchRule == nullptr) {
        return -1;
    }
    DBusConnection *conn = link->conn;
    ErrorGuard err;
    dbus_bus_remove_match(conn, matchRule, err.get());
    if (err.isSet()) {
        log_log(LOG_ERR, __func__, __LINE__, "hbus: remove match \"%s\" failed: %s\n", matchRule,
                err.message());
        return -1;
    }
    return 0;
}

int hbusSetInteresetedSignals(const hbusSignalEntry *table, int count)
{
    LinkPtr link = currentLink();
    if (!link || count < 0 || (table == nullptr && count > 0)) {
        return -1;
    }
    if (!link->filterAdded) {
        if (!dbus_connection_add_filter(link->conn, onSignal, nullptr, nullptr)) {
            return -1;
        }
        link->filterAdded = true;
    }
    g_signalTable.assign(table, table + count);
    return 0;
}

int hbusMainLoop(void)
{
    // Never a connection of its own making: one that nothing was set up on
    // would leave its caller deaf without a sign.
    LinkPtr link;
    {
        std::lock_guard<std::mutex> lock(g_connMutex);
        link = g_link;
    }
    if (!link || !(link->filterAdded || link->objectRegistered)) {
        return -1;
    }
    DBusConnection *conn = link->conn;
    int busFd = -1;
    if (!dbus_connection_get_unix_fd(conn, &busFd)) {
        return -1;
    }
    for (;;) {
        while (dbus_connection_dispatch(conn) == DBUS_DISPATCH_DATA_REMAINS) {
        }
        if (!dbus_connection_get_is_connected(conn)) {
            break;
        }
        struct pollfd fds[2] = {};
        fds[0].fd = busFd;
        fds[0].events =
            static_cast<short>(POLLIN | (dbus_connection_has_messages_to_send(conn) ? POLLOUT : 0));
        fds[1].fd = g_wakeFd;
        fds[1].events = POLLIN;
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            log_log(LOG_ERR, __func__, __LINE__, "hbus: poll failed: %s\n", strerror(errno));
            return -1;
        }
        if (fds[1].revents & POLLIN) {
            uint64_t count;
            ssize_t n = read(g_wakeFd, &count, sizeof(count));
            (void)n; // non-blocking; only the reset matters
        }
        // Non-blocking read and write of whatever the socket allows now.
        dbus_connection_read_write(conn, 0);
    }
    retire(link);
    log_log(LOG_ERR, __func__, __LINE__, "hbus: disconnected from the bus\n");
    return 0;
}

int hbusIsMethodCall(hbusMessage *msg, const char *service, const char *method)
{
    if (msg == nullptr || msg->msg == nullptr || method == nullptr ||
        dbus_message_get_type(msg->msg) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return 0;
    }
    const char *member = dbus_message_get_member(msg->msg);
    if (member == nullptr || strcmp(member, method) != 0) {
        return 0;
    }
    // The service's interface carries its bus name; a call without an
    // interface is taken as addressed to it.
    const char *interface = dbus_message_get_interface(msg->msg);
    return interface == nullptr || (service != nullptr && strcmp(interface, service) == 0);
}

int hbusReadParcelInt32(hbusMessage *msg, int32_t *value)
{
    if (msg == nullptr || msg->msg == nullptr || value == nullptr || !nextArgument(msg, DBUS_TYPE_INT32)) {
        return -1;
    }
    dbus_int32_t v;
    dbus_message_iter_get_basic(&msg->readIter, &v);
    *value = v;
    return 0;
}

int hbusWriteParcelUint32(hbusMessage *reply, uint32_t value)
{
    dbus_uint32_t v = value;
    return appendReply(reply, DBUS_TYPE_UINT32, &v);
}

int hbusReadParcelString(hbusMessage *msg, char *buf, uint32_t size)
{
    if (buf != nullptr && size > 0) {
        buf[0] = '\0';
    }
    if (msg == nullptr || msg->msg == nullptr || buf == nullptr || size == 0 ||
        !nextArgument(msg, DBUS_TYPE_STRING)) {
        return -1;
    }
    const char *text = nullptr;
    dbus_message_iter_get_basic(&msg->readIter, &text);
    size_t n = strnlen(text, size - 1);
    memcpy(buf, text, n);
    buf[n] = '\0';
    return 0;
}

int hbusWriteParcelString(hbusMessage *reply, const char *text)
{
    if (text == nullptr) {
        return -1;
    }
    std::string copy(text);
    if (!dbus_validate_utf8(copy.c_str(), nullptr)) {
        // libdbus refuses invalid UTF-8; keep the ASCII and mark the rest.
        for (char &c : copy) {
            if (static_cast<unsigned char>(c) >= 0x80) {
                c = '?';
            }
        }
    }
    const char *p = copy.c_str();
    return appendReply(reply, DBUS_TYPE_STRING, &p);
}

const char *hbusGetMethodName(hbusMessage *msg)
{
    const char *member =
        (msg != nullptr && msg->msg != nullptr) ? dbus_message_get_member(msg->msg) : nullptr;
    return member != nullptr ? member : "";
}

int hbusSendSignal(const char * /*sender*/, const char *member, const void *data, uint32_t len)
{
    if (member == nullptr || !dbus_validate_member(member, nullptr) || (data == nullptr && len > 0) ||
        len > DBUS_MAXIMUM_ARRAY_LENGTH) {
        return -1;
    }
    LinkPtr link = currentLink();
    if (!link) {
        return -1;
    }
    DBusConnection *conn = link->conn;
    MessagePtr signal(dbus_message_new_signal(HBUS_OBJECT_PATH, HBUS_INTERFACE, member));
    if (!signal) {
        return -1;
    }
    static const unsigned char kNoBytes[1] = {0};
    const unsigned char *bytes = len > 0 ? static_cast<const unsigned char *>(data) : kNoBytes;
    int count = static_cast<int>(len);
    if (!dbus_message_append_args(signal.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, count,
                                  DBUS_TYPE_INVALID) ||
        !dbus_connection_send(conn, signal.get(), nullptr)) {
        return -1;
    }
    dbus_connection_flush(conn);
    return dbus_connection_get_is_connected(conn) ? 0 : -1;
}

} // extern "C"
