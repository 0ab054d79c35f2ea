// The bus signal handlers and the debug-command interpreter, called directly
// with payloads in exactly-sized heap blocks so that a read past the end is
// caught by the address sanitizer build.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "main.h"
#include "tavel_signal.h"
#include "test_env.h"

namespace
{

const std::string kEnter = "enter tavel_processDbgCmdSignal.\n";
const std::string kMismatch = "tavel_processDbgCmdSignal, parameter mismatched.\n";
const std::string kIgnore = "tavel_processDbgCmdSignal, ignore.\n";

std::string helpText()
{
    return std::string("httpinfo") + std::string(22, ' ') + "\tDump Http Connection Details. " +
           std::string(30, ' ') + "\n" + "acsinfo" + std::string(23, ' ') +
           "\tDump ACS Connection Details. " + std::string(31, ' ') + "\n";
}

// A zeroed heap block of exactly n bytes, nothing after it.
using Block = std::unique_ptr<char, FreeDeleter>;

Block exactBlock(size_t n)
{
    return Block(static_cast<char *>(calloc(n > 0 ? n : 1, 1)));
}

// A debug-command payload of exactly 2,112 bytes.
Block dbgPayload(const std::string &module, const std::string &cmd)
{
    auto block = exactBlock(TAVEL_DBG_PAYLOAD_LEN);
    memcpy(block.get(), module.data(), std::min(module.size(), size_t{TAVEL_DBG_MODULE_LEN}));
    memcpy(block.get() + TAVEL_DBG_MODULE_LEN, cmd.data(),
           std::min(cmd.size(), size_t{TAVEL_DBG_CMDLINE_LEN}));
    return block;
}

std::string runDbgSignal(const void *payload, uint32_t len)
{
    testing::internal::CaptureStdout();
    tavel_processDbgCmdSignal(nullptr, nullptr, payload, len);
    return testing::internal::GetCapturedStdout();
}

std::string runDbgCmd(const char *cmd)
{
    testing::internal::CaptureStdout();
    tavel_handleDbgCmd(cmd);
    return testing::internal::GetCapturedStdout();
}

class DbgCmdTest : public ::testing::Test
{
protected:
    void SetUp() override { tavel_resetRetryState(); }
    void TearDown() override { tavel_resetRetryState(); }
};

TEST_F(DbgCmdTest, WrongSizeOrMissingPayloadOnlyReportsMismatch)
{
    for (size_t n : {size_t{0}, size_t{3}, size_t{7}, size_t{2111}, size_t{2113}}) {
        SCOPED_TRACE(n);
        auto block = exactBlock(n);
        memcpy(block.get(), "tavelAgent", std::min(n, size_t{11}));
        EXPECT_EQ(runDbgSignal(block.get(), static_cast<uint32_t>(n)), kEnter + kMismatch);
    }
    EXPECT_EQ(runDbgSignal(nullptr, TAVEL_DBG_PAYLOAD_LEN), kEnter + kMismatch);
}

TEST_F(DbgCmdTest, OtherModulesAreIgnored)
{
    for (const char *module : {"tavelagent", "tavelAgentX", "tavel", ""}) {
        SCOPED_TRACE(module);
        auto payload = dbgPayload(module, "setTimeout 5");
        EXPECT_EQ(runDbgSignal(payload.get(), TAVEL_DBG_PAYLOAD_LEN), kEnter + kIgnore);
    }
    // A name filling its whole field has no terminator, so it is not the agent's.
    std::string unterminated = "tavelAgent" + std::string(TAVEL_DBG_MODULE_LEN - 10, 'x');
    auto payload = dbgPayload(unterminated, "setTimeout 5");
    EXPECT_EQ(runDbgSignal(payload.get(), TAVEL_DBG_PAYLOAD_LEN), kEnter + kIgnore);
    EXPECT_EQ(g_retryTimeout, 86400);
}

TEST_F(DbgCmdTest, SetTimeoutTakesTheValueFromPositionEleven)
{
    struct Case {
        const char *cmd;
        const char *shown;
        int32_t value;
    };
    const Case cases[] = {
        {"setTimeout", "", 0},                                // ends before the value position
        {"setTimeout ", "", 0},                               // ends exactly at it
        {"setTimeout abc", "abc", 0},                         // no digits
        {"xsetTimeout 600", " 600", 600},                     // one character in front
        {"setTimeout -30", "-30", -30},                       // negative accepted
        {"setTimeout 42s", "42s", 42},                        // digits up to the first other character
        {"setTimeout 99999999999", "99999999999", INT32_MAX}, // saturates
        {"abcdefghijk7 setTimeout", "7 setTimeout", 7},       // the word anywhere
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.cmd);
        g_retryTimeout = 12345;
        EXPECT_EQ(runDbgCmd(c.cmd),
                  std::string("debug cmdLine = ") + c.cmd + ".\n" + "cmdLine+11 = " + c.shown + ".\n");
        EXPECT_EQ(g_retryTimeout, c.value);
    }
}

TEST_F(DbgCmdTest, AnythingElsePrintsTheHelp)
{
    for (const char *cmd : {"httpinfo ", " httpinfo", "HTTPINFO", "acsinfo\n", "setTimeou 5", ""}) {
        SCOPED_TRACE(cmd);
        EXPECT_EQ(runDbgCmd(cmd), std::string("debug cmdLine = ") + cmd + ".\n" + helpText());
    }
    EXPECT_EQ(runDbgCmd(nullptr), helpText());
}

// The dumps themselves are checked on the real binary in test_bus.py.
TEST_F(DbgCmdTest, UnterminatedCommandFieldIsReadWithinItsBytes)
{
    std::string cmd = "setTimeout 42" + std::string(TAVEL_DBG_CMDLINE_LEN - 13, 'x');
    auto payload = dbgPayload("tavelAgent", cmd);
    std::string out = runDbgSignal(payload.get(), TAVEL_DBG_PAYLOAD_LEN);
    EXPECT_EQ(out, kEnter + "tavel_processDbgCmdSignal cmd: " + cmd + ".\n" + "debug cmdLine = " + cmd +
                       ".\n" + "cmdLine+11 = " + cmd.substr(11) + ".\n");
    EXPECT_EQ(g_retryTimeout, 42);

    // Called on its own with a field of exactly 2,048 unterminated bytes.
    auto field = exactBlock(TAVEL_DBG_CMDLINE_LEN);
    memcpy(field.get(), cmd.data(), TAVEL_DBG_CMDLINE_LEN);
    g_retryTimeout = 0;
    EXPECT_EQ(runDbgCmd(field.get()),
              "debug cmdLine = " + cmd + ".\n" + "cmdLine+11 = " + cmd.substr(11) + ".\n");
    EXPECT_EQ(g_retryTimeout, 42);
}

class SignalTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        memcpy(savedTimezone_, g_timezone, sizeof(g_timezone));
    }
    void TearDown() override { memcpy(g_timezone, savedTimezone_, sizeof(g_timezone)); }

    static void ntp(const void *payload, uint32_t len)
    {
        tavel_handleNTPTimeZoneUpdateSignal(nullptr, nullptr, payload, len);
    }
    static void sync(const void *payload, uint32_t len)
    {
        tavel_processSyncMgrSignal(nullptr, nullptr, payload, len);
    }
    static std::string ntpLine(const std::string &value)
    {
        return "notice tavel_handleNTPTimeZoneUpdateSignal, value received from hmsd module is " + value +
               ".\n";
    }

    char savedTimezone_[sizeof(g_timezone)] = {};
};

TEST_F(SignalTest, NtpValueIsBoundedByPayloadTerminatorAndField)
{
    memset(g_timezone, 'z', sizeof(g_timezone) - 1);
    const struct {
        std::string payload;
        std::string value;
    } cases[] = {
        {"Europe/Ber", "Europe/Ber"}, // unterminated: read within its bytes only
        {std::string("CET\0xy", 6), "CET"},
        {std::string(60, 'A'), std::string(49, 'A')},
    };
    for (const auto &c : cases) {
        auto block = exactBlock(c.payload.size());
        memcpy(block.get(), c.payload.data(), c.payload.size());
        ntp(block.get(), static_cast<uint32_t>(c.payload.size()));
        EXPECT_EQ(std::string(g_timezone, sizeof(g_timezone)),
                  c.value + std::string(sizeof(g_timezone) - c.value.size(), '\0'));
    }
    EXPECT_NE(tavelTestLog().find(ntpLine(std::string(49, 'A'))), std::string::npos) << tavelTestLog();

    ntp(nullptr, 0);
    EXPECT_EQ(std::string(g_timezone), std::string(49, 'A'));
    EXPECT_TRUE(tavelTestLogHas("error", "signal ignored: payload of 0 bytes, 1 needed")) << tavelTestLog();
}

TEST_F(SignalTest, SyncMessages)
{
    sync(nullptr, 0);
    EXPECT_TRUE(tavelTestLogHas("debug", "msg is NULL")) << tavelTestLog();

    for (size_t n : {size_t{3}, size_t{7}}) {
        SCOPED_TRACE(n);
        tavelTestCleanRoot();
        auto block = exactBlock(n);
        sync(block.get(), static_cast<uint32_t>(n));
        EXPECT_TRUE(
            tavelTestLogHas("error", "signal ignored: payload of " + std::to_string(n) + " bytes, 8 needed"))
            << tavelTestLog();
        EXPECT_EQ(tavelTestLog().find("type ="), std::string::npos);
    }

    // Header only: the data it announces is never read.
    struct Case {
        int32_t type;
        int32_t len;
        const char *level;
        const char *line;
    };
    const Case cases[] = {
        {1, 0, "notice", "type = 1, len = 0"},
        {1, 5, "notice", "Received ACS Connection Status"},
        {7, 2, "debug", "unknown type 7"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        tavelTestCleanRoot();
        int32_t header[2] = {c.type, c.len};
        auto block = exactBlock(sizeof(header));
        memcpy(block.get(), header, sizeof(header));
        sync(block.get(), sizeof(header));
        EXPECT_TRUE(tavelTestLogHas(c.level, c.line)) << tavelTestLog();
        EXPECT_EQ(tavelTestCount(tavelTestLog(), "\n"), 1) << tavelTestLog();
    }
}

TEST_F(SignalTest, BootstrapNeedsFourBytes)
{
    for (size_t n : {size_t{0}, size_t{3}}) {
        SCOPED_TRACE(n);
        tavelTestCleanRoot();
        auto block = exactBlock(n);
        tavel_TR69BootstrapStatusSignal(nullptr, nullptr, n > 0 ? block.get() : nullptr,
                                        static_cast<uint32_t>(n));
        EXPECT_TRUE(tavelTestLogHas("notice", "tavel_TR69BootStrapStatusSignal Entered ... "))
            << tavelTestLog();
        EXPECT_TRUE(
            tavelTestLogHas("error", "signal ignored: payload of " + std::to_string(n) + " bytes, 4 needed"))
            << tavelTestLog();
    }
}

// Bootstrap statuses 1, 0 and -7 run end to end in test_flow.py.
TEST_F(SignalTest, SendingWithoutABusFails)
{
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
}

} // namespace
