// tavelctl bus commands: send the agent's signals and call its method, the
// way the device's other modules and an operator would.  Also sends raw,
// possibly malformed signals so tests can probe the agent's handlers.
#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <dbus/dbus.h>
#include <memory>
#include <string>
#include <vector>

#include "dbus_guards.h"
#include "flat_json.h"
#include "tavel_bus.h"
#include "tavelctl.h"

namespace
{

const char kAgentName[] = TAVEL_BUS_NAME;
const char kSenderPath[] = "/velka/tavelctl";
const char kSenderInterface[] = "velka.tavelctl";
const size_t kModuleLen = TAVEL_DBG_MODULE_LEN;
const size_t kCmdLineLen = TAVEL_DBG_CMDLINE_LEN;
const int kCallTimeoutMs = 25000;

struct ConnectionClose {
    void operator()(DBusConnection *c) const
    {
        dbus_connection_flush(c);
        dbus_connection_close(c);
        dbus_connection_unref(c);
    }
};
using ConnectionPtr = std::unique_ptr<DBusConnection, ConnectionClose>;

using tavel::platform::ErrorGuard;
using tavel::platform::MessagePtr;

// Every failure is one line on stderr and exit status 1.
int fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("tavelctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return 1;
}

int usageError(const char *what)
{
    fprintf(stderr, "tavelctl: %s (try --help)\n", what);
    return 2;
}

bool parseInt32(const char *text, int32_t *out)
{
    if (text == nullptr || *text == '\0') {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(text, &end, 0);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) {
        return false;
    }
    *out = static_cast<int32_t>(v);
    return true;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool parseHex(const char *text, std::vector<unsigned char> *out)
{
    size_t n = strlen(text);
    if (n % 2 != 0) {
        return false;
    }
    out->clear();
    out->reserve(n / 2);
    for (size_t i = 0; i < n; i += 2) {
        int hi = hexDigit(text[i]);
        int lo = hexDigit(text[i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        out->push_back(static_cast<unsigned char>(hi * 16 + lo));
    }
    return true;
}

ConnectionPtr connectBus()
{
    ErrorGuard err;
    DBusConnection *conn = dbus_bus_get_private(DBUS_BUS_SYSTEM, err.get());
    if (conn == nullptr) {
        fail("cannot connect to the system bus: %s", err.message());
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    return ConnectionPtr(conn);
}

bool agentPresent(DBusConnection *conn)
{
    ErrorGuard err;
    if (dbus_bus_name_has_owner(conn, kAgentName, err.get())) {
        return true;
    }
    if (err.isSet()) {
        fail("cannot look up %s: %s", kAgentName, err.message());
    } else {
        fail("%s has no owner on the bus (is tavelAgent running?)", kAgentName);
    }
    return false;
}

enum class ArgKind { Bytes, None, String };

struct SignalSpec {
    std::string member;
    ArgKind kind = ArgKind::Bytes;
    std::vector<unsigned char> bytes;
    std::string text;
    bool ownerCheck = true;
};

int sendSignal(const SignalSpec &spec)
{
    if (!dbus_validate_member(spec.member.c_str(), nullptr)) {
        return fail("'%s' is not a valid signal name", spec.member.c_str());
    }
    if (spec.bytes.size() > DBUS_MAXIMUM_ARRAY_LENGTH) {
        return fail("payload too large");
    }
    ConnectionPtr conn = connectBus();
    if (!conn) {
        return 1;
    }
    if (spec.ownerCheck && !agentPresent(conn.get())) {
        return 1;
    }
    MessagePtr msg(dbus_message_new_signal(kSenderPath, kSenderInterface, spec.member.c_str()));
    if (!msg) {
        return fail("out of memory");
    }
    bool ok = true;
    if (spec.kind == ArgKind::Bytes) {
        static const unsigned char kNoBytes[1] = {0};
        const unsigned char *p = spec.bytes.empty() ? kNoBytes : spec.bytes.data();
        ok = dbus_message_append_args(msg.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &p,
                                      static_cast<int>(spec.bytes.size()), DBUS_TYPE_INVALID);
    } else if (spec.kind == ArgKind::String) {
        if (!dbus_validate_utf8(spec.text.c_str(), nullptr)) {
            return fail("--string needs valid UTF-8");
        }
        const char *s = spec.text.c_str();
        ok = dbus_message_append_args(msg.get(), DBUS_TYPE_STRING, &s, DBUS_TYPE_INVALID);
    }
    if (!ok || !dbus_connection_send(conn.get(), msg.get(), nullptr)) {
        return fail("out of memory");
    }
    dbus_connection_flush(conn.get());
    if (!dbus_connection_get_is_connected(conn.get())) {
        return fail("the bus closed the connection before the signal was sent");
    }
    return 0;
}

// Exit status when the agent is not on the bus.
constexpr int kNotRunning = 3;

int notRunning()
{
    fputs("tavelAgent is not running\n", stderr);
    return kNotRunning;
}

// Calls one of the agent's methods that answer a string; the answer goes to
// *answer.  The exit status on failure (3 when the agent is not on the bus).
int callForText(const char *method, const char *arg, std::string *answer)
{
    ConnectionPtr conn = connectBus();
    if (!conn) {
        return 1;
    }
    ErrorGuard lookup;
    if (!dbus_bus_name_has_owner(conn.get(), kAgentName, lookup.get())) {
        return lookup.isSet() ? fail("cannot look up %s: %s", kAgentName, lookup.message()) : notRunning();
    }
    MessagePtr call(dbus_message_new_method_call(kAgentName, TAVEL_BUS_PATH, TAVEL_BUS_INTERFACE, method));
    if (!call || (arg != nullptr &&
                  !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &arg, DBUS_TYPE_INVALID))) {
        return fail("out of memory");
    }
    ErrorGuard err;
    MessagePtr reply(
        dbus_connection_send_with_reply_and_block(conn.get(), call.get(), kCallTimeoutMs, err.get()));
    if (!reply) {
        if (dbus_error_has_name(err.get(), DBUS_ERROR_SERVICE_UNKNOWN) ||
            dbus_error_has_name(err.get(), DBUS_ERROR_NAME_HAS_NO_OWNER)) {
            return notRunning(); // it went away meanwhile
        }
        if (dbus_error_has_name(err.get(), DBUS_ERROR_ACCESS_DENIED)) {
            return fail("%s refused by the bus policy: run as root or as a member of group tavel", method);
        }
        return fail("%s failed: %s: %s", method, err.name(), err.message());
    }
    const char *text = nullptr;
    DBusMessageIter iter;
    if (!dbus_message_iter_init(reply.get(), &iter) ||
        dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_STRING) {
        return fail("%s: unexpected reply signature '%s'", method, dbus_message_get_signature(reply.get()));
    }
    dbus_message_iter_get_basic(&iter, &text);
    *answer = text;
    return 0;
}

// A closed or full stdout must not pass for a successful answer.
int writeOut(const std::string &text)
{
    fwrite(text.data(), 1, text.size(), stdout);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        return fail("cannot write to standard output");
    }
    return 0;
}

// dbg CMDLINE... [--signal] [--module NAME]
int cmdDbg(int argc, char **argv)
{
    std::string module = TAVEL_DBG_MODULE;
    std::string cmdLine;
    bool haveWord = false;
    bool asSignal = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--signal") == 0) {
            asSignal = true;
            continue;
        }
        if (strcmp(argv[i], "--module") == 0) {
            if (++i >= argc) {
                return usageError("--module needs a name");
            }
            module = argv[i];
            asSignal = true; // only the signal names a module
            continue;
        }
        if (haveWord) {
            cmdLine += ' ';
        }
        cmdLine += argv[i];
        haveWord = true;
    }
    if (!haveWord) {
        return usageError("dbg needs a command line");
    }
    if (module.size() >= kModuleLen) {
        return fail("module name longer than %zu characters", kModuleLen - 1);
    }
    if (cmdLine.size() >= kCmdLineLen) {
        return fail("command line longer than %zu characters", kCmdLineLen - 1);
    }
    if (!asSignal) {
        if (!dbus_validate_utf8(cmdLine.c_str(), nullptr)) {
            return fail("the command line must be valid UTF-8 (or use --signal)");
        }
        std::string output;
        int rc = callForText(TAVEL_BUS_METHOD_DBG, cmdLine.c_str(), &output);
        return rc != 0 ? rc : writeOut(output);
    }
    SignalSpec spec;
    spec.member = TAVEL_SIG_DBG_CMD;
    spec.bytes.assign(TAVEL_DBG_PAYLOAD_LEN, 0);
    memcpy(spec.bytes.data(), module.data(), module.size());
    memcpy(spec.bytes.data() + kModuleLen, cmdLine.data(), cmdLine.size());
    return sendSignal(spec);
}

// status [--json]
int cmdStatus(int argc, char **argv)
{
    bool json = argc == 2 && strcmp(argv[1], "--json") == 0;
    if (argc > 2 || (argc == 2 && !json)) {
        return usageError("usage: tavelctl status [--json]");
    }
    std::string answer;
    int rc = callForText(TAVEL_BUS_METHOD_STATUS, nullptr, &answer);
    if (rc != 0) {
        return rc;
    }
    if (json) {
        return writeOut(answer + "\n");
    }
    std::vector<FlatJsonMember> members;
    if (!parseFlatJson(answer, &members)) {
        return fail("the agent's status is not a flat JSON object");
    }
    size_t width = 0;
    for (const FlatJsonMember &m : members) {
        width = m.key.size() > width ? m.key.size() : width;
    }
    std::string lines;
    for (const FlatJsonMember &m : members) {
        lines +=
            m.key + ":" + std::string(width - m.key.size() + 1, ' ') + (m.isNull ? "none" : m.value) + "\n";
    }
    return writeOut(lines);
}

// bootstrap STATUS
int cmdBootstrap(int argc, char **argv)
{
    if (argc != 2) {
        return usageError("usage: tavelctl bootstrap STATUS");
    }
    int32_t status;
    if (!parseInt32(argv[1], &status)) {
        return fail("bootstrap status '%s' is not a 32-bit integer", argv[1]);
    }
    SignalSpec spec;
    spec.member = TAVEL_SIG_BOOTSTRAP;
    spec.bytes.resize(sizeof(status));
    memcpy(spec.bytes.data(), &status, sizeof(status));
    return sendSignal(spec);
}

// ntp TZVALUE
int cmdNtp(int argc, char **argv)
{
    if (argc != 2) {
        return usageError("usage: tavelctl ntp TZVALUE");
    }
    SignalSpec spec;
    spec.member = TAVEL_SIG_NTP_TIMEZONE;
    spec.bytes.assign(argv[1], argv[1] + strlen(argv[1]) + 1); // with its terminator
    return sendSignal(spec);
}

// sync TYPE [DATA]
int cmdSync(int argc, char **argv)
{
    if (argc != 2 && argc != 3) {
        return usageError("usage: tavelctl sync TYPE [DATA]");
    }
    TavelSyncMsgHeader header;
    if (!parseInt32(argv[1], &header.type)) {
        return fail("sync type '%s' is not a 32-bit integer", argv[1]);
    }
    const char *data = argc == 3 ? argv[2] : "";
    size_t dataLen = strlen(data);
    header.len = static_cast<int32_t>(dataLen); // bounded by the argument size limit
    SignalSpec spec;
    spec.member = TAVEL_SIG_SYNC_MGR;
    spec.bytes.resize(sizeof(header) + dataLen);
    memcpy(spec.bytes.data(), &header, sizeof(header));
    memcpy(spec.bytes.data() + sizeof(header), data, dataLen);
    return sendSignal(spec);
}

// signal MEMBER (--hex HEX | --size N | --no-arg | --string S) [--no-owner-check]
int cmdSignal(int argc, char **argv)
{
    if (argc < 2) {
        return usageError("usage: tavelctl signal MEMBER --hex HEX|--size N|--no-arg|--string S");
    }
    SignalSpec spec;
    spec.member = argv[1];
    int payloadOptions = 0;
    for (int i = 2; i < argc; ++i) {
        const char *opt = argv[i];
        if (strcmp(opt, "--no-owner-check") == 0) {
            spec.ownerCheck = false;
        } else if (strcmp(opt, "--no-arg") == 0) {
            spec.kind = ArgKind::None;
            ++payloadOptions;
        } else if (strcmp(opt, "--hex") == 0 || strcmp(opt, "--size") == 0 || strcmp(opt, "--string") == 0) {
            if (++i >= argc) {
                return usageError("option needs a value");
            }
            ++payloadOptions;
            if (strcmp(opt, "--hex") == 0) {
                if (!parseHex(argv[i], &spec.bytes)) {
                    return fail("'%s' is not an even number of hex digits", argv[i]);
                }
            } else if (strcmp(opt, "--size") == 0) {
                int32_t n;
                if (!parseInt32(argv[i], &n) || n < 0 ||
                    static_cast<uint32_t>(n) > DBUS_MAXIMUM_ARRAY_LENGTH) {
                    return fail("size '%s' is out of range", argv[i]);
                }
                spec.bytes.assign(static_cast<size_t>(n), 0);
            } else {
                spec.kind = ArgKind::String;
                spec.text = argv[i];
            }
        } else {
            fprintf(stderr, "tavelctl: unknown option '%s' (try --help)\n", opt);
            return 2;
        }
    }
    if (payloadOptions != 1) {
        return usageError("signal needs exactly one of --hex, --size, --no-arg, --string");
    }
    return sendSignal(spec);
}

// call METHOD [INT]: dummyFunction takes an int32 and answers a uint32.
int cmdCall(int argc, char **argv)
{
    if (argc != 2 && argc != 3) {
        return usageError("usage: tavelctl call METHOD [INT]");
    }
    if (!dbus_validate_member(argv[1], nullptr)) {
        return fail("'%s' is not a valid method name", argv[1]);
    }
    int32_t arg = 0;
    if (argc == 3 && !parseInt32(argv[2], &arg)) {
        return fail("argument '%s' is not a 32-bit integer", argv[2]);
    }
    ConnectionPtr conn = connectBus();
    if (!conn) {
        return 1;
    }
    MessagePtr call(dbus_message_new_method_call(kAgentName, TAVEL_BUS_PATH, TAVEL_BUS_INTERFACE, argv[1]));
    if (!call) {
        return fail("out of memory");
    }
    if (argc == 3 && !dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &arg, DBUS_TYPE_INVALID)) {
        return fail("out of memory");
    }
    ErrorGuard err;
    MessagePtr reply(
        dbus_connection_send_with_reply_and_block(conn.get(), call.get(), kCallTimeoutMs, err.get()));
    if (!reply) {
        fprintf(stderr, "tavelctl: %s failed: %s: %s\n", argv[1], err.name(), err.message());
        return 1;
    }
    DBusMessageIter iter;
    if (dbus_message_iter_init(reply.get(), &iter) &&
        dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_UINT32) {
        dbus_uint32_t value;
        dbus_message_iter_get_basic(&iter, &value);
        printf("%u\n", value);
    } else {
        printf("(reply signature '%s')\n", dbus_message_get_signature(reply.get()));
    }
    return 0;
}

} // namespace

bool tavelctlIsBusCommand(const char *word)
{
    static const char *const kWords[] = {"status", "dbg", "bootstrap", "ntp", "sync", "call", "signal"};
    for (const char *w : kWords) {
        if (strcmp(word, w) == 0) {
            return true;
        }
    }
    return false;
}

bool tavelctlAgentRunning()
{
    ErrorGuard err;
    DBusConnection *raw = dbus_bus_get_private(DBUS_BUS_SYSTEM, err.get());
    if (raw == nullptr) {
        return false;
    }
    dbus_connection_set_exit_on_disconnect(raw, FALSE);
    ConnectionPtr conn(raw);
    ErrorGuard lookup;
    return dbus_bus_name_has_owner(conn.get(), kAgentName, lookup.get());
}

void tavelctlBusUsage(FILE *out)
{
    fputs(
        "Agent (over the system bus; root or group tavel):\n"
        "  tavelctl status [--json]            the agent's state: where onboarding stands, the last\n"
        "                                      result, the next try (UTC), firewall, account present or\n"
        "                                      empty; --json: one JSON object.  Exit 3: not running.\n"
        "  tavelctl dbg CMDLINE...             run a debug command (httpinfo, acsinfo, setTimeout N)\n"
        "                                      and print its output (also on the agent's stdout)\n"
        "      --signal                        send it as the sendDbgCmd signal instead: nothing comes back\n"
        "      --module NAME                   the signal form, for another module (default " TAVEL_DBG_MODULE
        ")\n"
        "\n"
        "Simulation (playing the device's other modules):\n"
        "  tavelctl bootstrap STATUS           send the TR-069 bootstrap status (1 = success)\n"
        "  tavelctl ntp TZVALUE                send an NTP time-zone update\n"
        "  tavelctl sync TYPE [DATA]           send a sync-manager message\n"
        "  tavelctl call METHOD [INT]          call a method of " TAVEL_BUS_NAME ", print the uint32 reply\n"
        "  tavelctl signal MEMBER PAYLOAD [--no-owner-check]\n"
        "                                      raw signal; PAYLOAD is --hex HEX, --size N (zero bytes),\n"
        "                                      --no-arg, or --string S (a string argument, not bytes)\n",
        out);
}

int tavelctlBus(int argc, char **argv)
{
    const char *word = argv[0];
    if (strcmp(word, "status") == 0) {
        return cmdStatus(argc, argv);
    }
    if (strcmp(word, "dbg") == 0) {
        return cmdDbg(argc, argv);
    }
    if (strcmp(word, "bootstrap") == 0) {
        return cmdBootstrap(argc, argv);
    }
    if (strcmp(word, "ntp") == 0) {
        return cmdNtp(argc, argv);
    }
    if (strcmp(word, "sync") == 0) {
        return cmdSync(argc, argv);
    }
    if (strcmp(word, "call") == 0) {
        return cmdCall(argc, argv);
    }
    if (strcmp(word, "signal") == 0) {
        return cmdSignal(argc, argv);
    }
    return usageError("unknown bus command");
}
