// The bus signal handlers and the debug-command interpreter, called directly with payloads in
// exactly-sized heap blocks so that the address sanitizer build catches a read past the end.
#include "test_env.h"

namespace
{

const std::string kEnter = "enter tavel_processDbgCmdSignal.\n";
const std::string kMismatch = "tavel_processDbgCmdSignal, parameter mismatched.\n";
const std::string kIgnore = "tavel_processDbgCmdSignal, ignore.\n";
const std::string kHelp = "httpinfo" + std::string(22, ' ') + "\tDump Http Connection Details. " +
                          std::string(30, ' ') + "\nacsinfo" + std::string(23, ' ') +
                          "\tDump ACS Connection Details. " + std::string(31, ' ') + "\n";

// A debug-command payload of exactly 2,112 bytes.
std::string dbgPayload(const std::string &module, const std::string &cmd)
{
    std::string payload(TAVEL_DBG_PAYLOAD_LEN, '\0');
    memcpy(&payload[0], module.data(), std::min(module.size(), size_t{TAVEL_DBG_MODULE_LEN}));
    memcpy(&payload[TAVEL_DBG_MODULE_LEN], cmd.data(), std::min(cmd.size(), size_t{TAVEL_DBG_CMDLINE_LEN}));
    return payload;
}

// Without data, the payload gives only the announced length.
std::string runDbgSignal(const std::string &payload, bool withData = true)
{
    testing::internal::CaptureStdout();
    tavel_processDbgCmdSignal(nullptr, nullptr, withData ? tavelTestBlock(payload).get() : nullptr,
                              static_cast<uint32_t>(payload.size()));
    return testing::internal::GetCapturedStdout();
}

std::string runDbgCmd(const char *cmd)
{
    testing::internal::CaptureStdout();
    tavel_handleDbgCmd(cmd);
    return testing::internal::GetCapturedStdout();
}

class SignalTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        tavel_resetRetryState();
        memcpy(savedTimezone_, g_timezone, sizeof(g_timezone));
    }
    void TearDown() override
    {
        tavel_resetRetryState();
        memcpy(g_timezone, savedTimezone_, sizeof(g_timezone));
    }
    char savedTimezone_[sizeof(g_timezone)] = {};
};

TEST_F(SignalTest, DbgCmdOnlyTheAgentsPayloadsRunAndSetTimeoutReadsFromPositionEleven)
{
    const std::string sized = dbgPayload("tavelAgent", "") + '\0';
    for (size_t n : {0, 3, 7, 2111, 2113}) {
        EXPECT_EQ(runDbgSignal(sized.substr(0, n)), kEnter + kMismatch) << n;
    }
    EXPECT_EQ(runDbgSignal(sized.substr(0, TAVEL_DBG_PAYLOAD_LEN), false), kEnter + kMismatch);

    // A name filling its whole field has no terminator, so it is not the agent's.
    const std::string modules[] = {"tavelagent", "tavelAgentX", "tavel", "",
                                   "tavelAgent" + std::string(TAVEL_DBG_MODULE_LEN - 10, 'x')};
    for (const std::string &module : modules) {
        EXPECT_EQ(runDbgSignal(dbgPayload(module, "setTimeout 5")), kEnter + kIgnore) << module;
    }
    EXPECT_EQ(g_retryTimeout, 86400);

    // The dumps themselves are checked on the real binary in test_bus.py.
    const std::string cmd = "setTimeout 42" + std::string(TAVEL_DBG_CMDLINE_LEN - 13, 'x');
    const std::string handled = "debug cmdLine = " + cmd + ".\ncmdLine+11 = " + cmd.substr(11) + ".\n";
    EXPECT_EQ(runDbgSignal(dbgPayload("tavelAgent", cmd)),
              kEnter + "tavel_processDbgCmdSignal cmd: " + cmd + ".\n" + handled);
    EXPECT_EQ(g_retryTimeout, 42);
    // Called on its own with a field of exactly 2,048 unterminated bytes.
    g_retryTimeout = 0;
    EXPECT_EQ(runDbgCmd(tavelTestBlock(cmd).get()), handled);
    EXPECT_EQ(g_retryTimeout, 42);

    const struct {
        const char *cmd, *shown; // shown null: the help
        int32_t value;
    } cases[] = {
        {"setTimeout", "", 0},                                // ends before the value position
        {"setTimeout ", "", 0},                               // ends exactly at it
        {"setTimeout abc", "abc", 0},                         // no digits
        {"xsetTimeout 600", " 600", 600},                     // one character in front
        {"setTimeout -30", "-30", -30},                       // negative accepted
        {"setTimeout 42s", "42s", 42},                        // digits up to the first other character
        {"setTimeout 99999999999", "99999999999", INT32_MAX}, // saturates
        {"abcdefghijk7 setTimeout", "7 setTimeout", 7},       // the word anywhere
        {"httpinfo ", nullptr, 12345},
        {" httpinfo", nullptr, 12345},
        {"HTTPINFO", nullptr, 12345},
        {"setTimeou 5", nullptr, 12345},
        {"", nullptr, 12345},
    };
    for (const auto &c : cases) {
        g_retryTimeout = 12345;
        EXPECT_EQ(runDbgCmd(c.cmd), "debug cmdLine = "s + c.cmd + ".\n" +
                                        (c.shown != nullptr ? "cmdLine+11 = "s + c.shown + ".\n" : kHelp))
            << c.cmd;
        EXPECT_EQ(g_retryTimeout, c.value) << c.cmd;
    }
    // A control character is no command word, and it reaches the output spelled out.
    EXPECT_EQ(runDbgCmd("acsinfo\n"), "debug cmdLine = acsinfo\\n.\n"s + kHelp);
    EXPECT_EQ(runDbgCmd(nullptr), kHelp);
}

TEST_F(SignalTest, PayloadsAreReadWithinTheirBytesAndSendingNeedsABus)
{
    memset(g_timezone, 'z', sizeof(g_timezone) - 1);
    const std::pair<std::string, std::string> ntp[] = {
        {"Europe/Ber", "Europe/Ber"}, // unterminated: read within its bytes only
        {"CET\0xy"s, "CET"},
        {std::string(60, 'A'), std::string(49, 'A')},
    };
    for (const auto &[payload, value] : ntp) {
        tavel_handleNTPTimeZoneUpdateSignal(nullptr, nullptr, tavelTestBlock(payload).get(),
                                            static_cast<uint32_t>(payload.size()));
        EXPECT_EQ(std::string(g_timezone, sizeof(g_timezone)),
                  value + std::string(sizeof(g_timezone) - value.size(), '\0'));
    }
    const std::string received =
        "notice tavel_handleNTPTimeZoneUpdateSignal, value received from hmsd module is ";
    EXPECT_EQ(tavelTestCount(tavelTestLog(), received + std::string(49, 'A') + ".\n"), 1) << tavelTestLog();

    tavel_handleNTPTimeZoneUpdateSignal(nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(std::string(g_timezone), std::string(49, 'A'));
    EXPECT_TRUE(tavelTestLogHas("error", "signal ignored: payload of 0 bytes, 1 needed")) << tavelTestLog();

    // Bootstrap statuses 1, 0 and -7 run end to end in test_flow.py.
    // Never the host's bus: point the layer at a socket that does not exist.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + tavelTestPath("/no-bus")).c_str(), 1);
    const char data[3] = {'a', 'b', 'c'};
    EXPECT_EQ(tavel_sendMsg("tavelSyncSignal", data, sizeof(data)), -1);
    EXPECT_TRUE(tavelTestLogHas("error", "hbus send signal failed, ret = [-1]")) << tavelTestLog();

    tavelTestCleanRoot();
    EXPECT_EQ(tavel_updateAcsStatus(1, data, sizeof(data)), -1);
    EXPECT_TRUE(tavelTestLogHas("notice", "tavelMsg: type = 1, len = 3")) << tavelTestLog();

    // A length that cannot travel in the signed header is refused unsent.
    tavelTestCleanRoot();
    EXPECT_EQ(tavel_updateAcsStatus(1, data, UINT32_MAX - 4), -1);
    EXPECT_EQ(tavelTestLog(), "");

    // One log line for each message; the data a header announces is never read.
    tavel_processSyncMgrSignal(nullptr, nullptr, nullptr, 0);
    EXPECT_TRUE(tavelTestLogHas("debug", "msg is NULL")) << tavelTestLog();

    auto header = [](int32_t type, int32_t len) {
        const int32_t fields[2] = {type, len};
        return std::string(reinterpret_cast<const char *>(fields), sizeof(fields));
    };
    const struct {
        std::string payload;
        const char *level, *line;
    } sync[] = {
        {std::string(3, '\0'), "error", "signal ignored: payload of 3 bytes, 8 needed"},
        {std::string(7, '\0'), "error", "signal ignored: payload of 7 bytes, 8 needed"},
        {header(1, 0), "notice", "type = 1, len = 0"},
        {header(1, 5), "notice", "Received ACS Connection Status"},
        {header(7, 2), "debug", "unknown type 7"},
    };
    for (const auto &c : sync) {
        tavelTestCleanRoot();
        tavel_processSyncMgrSignal(nullptr, nullptr, tavelTestBlock(c.payload).get(),
                                   static_cast<uint32_t>(c.payload.size()));
        EXPECT_TRUE(tavelTestLogHas(c.level, c.line)) << tavelTestLog();
        EXPECT_EQ(tavelTestCount(tavelTestLog(), "\n"), 1) << tavelTestLog();
    }

    for (size_t n : {0, 3}) {
        tavelTestCleanRoot();
        tavel_TR69BootstrapStatusSignal(nullptr, nullptr, n > 0 ? tavelTestBlock("abc").get() : nullptr,
                                        static_cast<uint32_t>(n));
        EXPECT_TRUE(tavelTestLogHas("notice", "tavel_TR69BootStrapStatusSignal Entered ... "));
        EXPECT_TRUE(
            tavelTestLogHas("error", "signal ignored: payload of " + std::to_string(n) + " bytes, 4 needed"));
    }
}

} // namespace
