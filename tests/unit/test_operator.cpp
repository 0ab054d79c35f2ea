// What an operator sees of the agent: the status snapshot and its notice lines, debug output
// collected for a bus caller, and secrets masked only when redaction is switched on.
#include "agent_output.h"
#include "agent_status.h"
#include "store.h"
#include "test_env.h"

namespace
{

class Operator : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        tavelTestFreshReply();
        tavel_resetRetryState();
        tavel_statusReset();
        // Real timers that never signal: the retry helper arms them.
        struct sigevent none = {};
        none.sigev_notify = SIGEV_NONE;
        timer_create(CLOCK_MONOTONIC, &none, &g_tavelCtrl.retryTimer);
        timer_create(CLOCK_MONOTONIC, &none, &g_tavelCtrl.statusUpdateTimer);
    }
    void TearDown() override
    {
        timer_delete(g_tavelCtrl.retryTimer);
        timer_delete(g_tavelCtrl.statusUpdateTimer);
        unsetenv("TAVEL_REDACT_SECRETS");
        tavel_redactReload();
        tavel_resetRetryState();
    }
};

std::string stateLines()
{
    std::string out;
    std::istringstream in(tavelTestLog());
    for (std::string line; std::getline(in, line);) {
        size_t at = line.find("] state ");
        if (line.rfind("notice ", 0) == 0 && at != std::string::npos) {
            out += line.substr(at + 2) + "\n";
        }
    }
    return out;
}

} // namespace

TEST_F(Operator, RetriesNameTheirWaitAndTheSnapshotFollowsEveryChange)
{
    TAVEL_STATUS(AgentState::WaitingClock, 10, "the clock is not set yet");
    TAVEL_STATUS(AgentState::WaitingClock, 10, "the clock is not set yet"); // a poll: no second line
    tavel_statusResult(503);
    EXPECT_EQ(tavel_armRetry(503, TAVEL_TIMER_RETRY), 0);
    std::string json = tavel_statusJson();
    EXPECT_NE(json.find(R"("state":"retry-wait")"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("retry_count":1,"last_result":"503 Service Unavailable","next_try":"20)"),
              std::string::npos)
        << json;

    tavel_armRetry(401, TAVEL_TIMER_STATUS);
    g_retryTimeout = -1000; // "setTimeout -1000": a negative delay disarms the timer
    EXPECT_EQ(tavel_armRetry(401, TAVEL_TIMER_RETRY), 0);
    json = tavel_statusJson();
    EXPECT_NE(json.find(R"("state":"idle")"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("next_try":null)"), std::string::npos) << json;
    EXPECT_EQ(tavel_armRetry(504, TAVEL_TIMER_RETRY), 1);

    std::vector<std::string> lines;
    std::istringstream in(stateLines());
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 5u) << stateLines();
    // "...; next try 2026-11-25T06:23:39Z (in N s)": the time of day in UTC, then the nominal delay.
    auto nextTry = [](const std::string &line, const std::string &head) {
        int secs = -1;
        size_t at = line.find("; next try ");
        if (line.rfind(head, 0) != 0 || at == std::string::npos || line.size() < at + 32 ||
            line[at + 11 + 19] != 'Z' || line[at + 11 + 10] != 'T' ||
            sscanf(line.c_str() + at + 11 + 20, " (in %d s)", &secs) != 1) {
            return -1;
        }
        return secs;
    };
    EXPECT_EQ(nextTry(lines[0], "state waiting-clock: the clock is not set yet; next try "), 10) << lines[0];
    int backoff =
        nextTry(lines[1], "state retry-wait: fetch 503 Service Unavailable: back-off retry 1; next try ");
    EXPECT_TRUE(backoff >= 5 && backoff <= 9) << lines[1];
    const std::string longWait =
        "state report-retry-wait: status report 401 Unauthorized is not transient: the "
        "long wait of ";
    int wait = -1;
    sscanf(lines[2].c_str() + std::min(longWait.size(), lines[2].size()), "%d", &wait);
    EXPECT_TRUE(wait >= 86400 && wait <= 86654) << lines[2];
    EXPECT_EQ(nextTry(lines[2], longWait + std::to_string(wait) +
                                    " s (about 1 day(s); \"setTimeout\" changes it); next try "),
              wait)
        << lines[2];
    EXPECT_EQ(lines[3].rfind("state idle: fetch 401 Unauthorized: retry delay -", 0), 0u) << lines[3];
    EXPECT_NE(lines[3].find(" s disarms the timer; no retry follows"), std::string::npos) << lines[3];
    EXPECT_EQ(lines[4],
              "state idle: fetch 504 server status outside 110-503: not retried; nothing is scheduled "
              "until a restart");
}

TEST_F(Operator, SnapshotJsonEscapesWhatComesFromTheDataModelAndKeepsTheAccountValuesOut)
{
    tavel_statusAccount(1);
    tavel_statusFirewall(1);
    tavel_statusParkedCode("GBR!");
    TAVEL_STATUS(AgentState::Exiting, -1, "CA file %s missing", "/a\"b\\c\x01\xc3\xa9");
    EXPECT_EQ(
        tavel_statusJson().rfind(
            R"({"state":"exiting","cause":"CA file /a\"b\\c\u0001\u00c3\u00a9 missing","since":"20)", 0),
        0u)
        << tavel_statusJson();
    std::string json = tavel_statusJson();
    for (const char *part : {R"("attempt":0,)", R"("last_result":null,)", R"("firewall_open":true,)",
                             R"("account":"present",)", R"("parked_country_code":"GBR",)"}) {
        EXPECT_NE(json.find(part), std::string::npos) << part << " in " << json;
    }
    char text[64];
    tavel_resultText(418, text, sizeof(text));
    EXPECT_STREQ(text, "418 HTTP status");
}

TEST_F(Operator, DebugOutputIsCapturedForItsOwnThreadAndBounded)
{
    std::string captured;
    testing::internal::CaptureStdout();
    {
        OutputCapture capture(64);
        OutputCapture inner(1024); // does not nest: sees nothing
        std::thread other([] { tavel_out("from another thread\n"); });
        other.join();
        tavel_handleDbgCmd("setTimeout 42");
        tavel_handleDbgCmd("acsinfo");
        EXPECT_EQ(inner.text(), "");
        captured = capture.text();
    }
    tavel_out("after the capture\n");
    std::string stdoutText = testing::internal::GetCapturedStdout();
    EXPECT_EQ(g_retryTimeout, 42);
    EXPECT_EQ(captured.substr(0, 64),
              std::string("debug cmdLine = setTimeout 42.\ncmdLine+11 = 42.\ndebug cmdLine = "));
    // The closing note counts what was dropped: everything of acsinfo past the first line's start.
    const std::string note = captured.substr(64), tail = " more bytes on the agent's standard output]\n";
    size_t dropped = 0;
    EXPECT_TRUE(sscanf(note.c_str(), "\n[output cut: %zu", &dropped) == 1 && dropped > 100) << note;
    EXPECT_TRUE(note.size() > tail.size() && note.compare(note.size() - tail.size(), tail.size(), tail) == 0)
        << note;
    // The agent's own stdout still gets everything, the other thread's line too.
    for (const char *line : {"from another thread\n", "ACS Connection Details", "after the capture\n"}) {
        EXPECT_NE(stdoutText.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(captured.find("from another thread"), std::string::npos);
}

TEST_F(Operator, SecretsAreMaskedInEveryLineOnlyWhenRedacting)
{
    for (bool redact : {false, true}) {
        SCOPED_TRACE(redact);
        tavelTestCleanRoot();
        redact ? setenv("TAVEL_REDACT_SECRETS", "1", 1) : setenv("TAVEL_REDACT_SECRETS", "yes", 1);
        tavel_redactReload();
        tavelTestWriteFile(kTavelTestStore, "Device.X_TAVEL_Cloud.ConfigAPIKey=stored-cloud-key\n");
        EXPECT_EQ(tavel_isKPRconfigApikeyEmpty(), 0);
        std::string received = "received-cloud-key";
        ServerData data = g_serverData;
        data.kprconfigapikey = &received[0];
        tavel_setCloudMAPPURL(data);
        const std::string header = "kprconfigapikey: header-cloud-key\r\n";
        header_handler(tavelTestBlock(header).get(), 1, header.size(), nullptr);
        tavel_copyText(g_httpInfo.x_api_key, sizeof(g_httpInfo.x_api_key), "agent-api-key", 64);
        testing::internal::CaptureStdout();
        tavel_handleDbgCmd("httpinfo");
        std::string shown = tavelTestLog() + testing::internal::GetCapturedStdout();

        for (const char *secret :
             {"stored-cloud-key", "received-cloud-key", "header-cloud-key", "agent-api-key"}) {
            EXPECT_EQ(tavelTestCount(shown, secret) > 0, !redact) << secret;
        }
        for (const char *masked : {"kprConfigApikey[***]", "setkprconfigApikey set is [***]",
                                   "header value is kprconfigapikey: ***", "g_httpInfo.x_api_key ***\n"}) {
            EXPECT_EQ(tavelTestCount(shown, masked), redact ? (masked[0] == 'g' ? 2 : 1) : 0) << masked;
        }
        // Stored as received either way.
        tavel::dml::Store store;
        std::string error;
        ASSERT_TRUE(store.load(&error)) << error;
        EXPECT_EQ(store.get("Device.X_TAVEL_Cloud.ConfigAPIKey"), "received-cloud-key");
        memset(g_httpInfo.x_api_key, 0, sizeof(g_httpInfo.x_api_key));
    }
}
