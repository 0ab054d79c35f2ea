// Retry back-off: which codes are retried, with which delay, and what state
// each rule leaves behind.
#include <gtest/gtest.h>

#include "main.h"
#include "test_env.h"

namespace
{

class Backoff : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        g_tavelCtrl.retryCount = 0;
        g_lastErrorCode = TAVEL_RC_NO_RESPONSE_CODE;
        g_retryTimeout = 86400;
        // Distinct stand-in handles: the rule must hand back the right one.
        g_tavelCtrl.retryTimer = reinterpret_cast<timer_t>(0x11);
        g_tavelCtrl.statusUpdateTimer = reinterpret_cast<timer_t>(0x22);
    }

    // Runs the rule; returns its result and leaves the outputs in the members.
    int retry(int code, int type = 1)
    {
        seconds_ = -12345;
        timer_ = nullptr;
        return getTimerIdForErrorCode(code, &seconds_, &timer_, type);
    }

    int seconds_ = 0;
    timer_t timer_ = nullptr;
};

TEST_F(Backoff, FirstTransientFailureStartsAtOne)
{
    for (int code : {0, 110, 503}) {
        SetUp();
        ASSERT_EQ(retry(code), 0);
        EXPECT_EQ(g_tavelCtrl.retryCount, 1);
        EXPECT_GE(seconds_, 5);
        EXPECT_LE(seconds_, 9);
        EXPECT_EQ(g_lastErrorCode, code);
        EXPECT_EQ(timer_, g_tavelCtrl.retryTimer);
    }
}

TEST_F(Backoff, RepeatedTransientCodeGrowsToTheCap)
{
    const int low[] = {5, 10, 20, 40, 80, 160, 320, 640, 640, 640};
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(retry(110), 0);
        int count = i + 1 > 8 ? 8 : i + 1;
        EXPECT_EQ(g_tavelCtrl.retryCount, count) << "attempt " << i;
        EXPECT_GE(seconds_, low[i]) << "attempt " << i;
        EXPECT_LE(seconds_, 2 * low[i] - 1) << "attempt " << i;
    }
    EXPECT_TRUE(tavelTestLogHas("notice", "ret 110 retryCount value is 8 retryCount seconds is " +
                                              std::to_string(seconds_)));
}

TEST_F(Backoff, ADifferentTransientCodeRestartsTheGrowth)
{
    retry(110);
    retry(110);
    ASSERT_EQ(g_tavelCtrl.retryCount, 2);
    retry(503);
    EXPECT_EQ(g_tavelCtrl.retryCount, 1);
    EXPECT_EQ(g_lastErrorCode, 503);
}

TEST_F(Backoff, TransferFailureAlwaysWaitsTenToNineteen)
{
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(retry(TAVEL_RC_TRANSFER_FAILED), 0);
        EXPECT_EQ(g_tavelCtrl.retryCount, 2);
        EXPECT_GE(seconds_, 10);
        EXPECT_LE(seconds_, 19);
    }
    EXPECT_EQ(g_lastErrorCode, TAVEL_RC_TRANSFER_FAILED);
}

TEST_F(Backoff, NonTransientWaitsADayAndKeepsTheCount)
{
    g_tavelCtrl.retryCount = 3;
    for (int code : {204, 400, 401, 403, 404, 500}) {
        ASSERT_EQ(retry(code, 2), 0);
        EXPECT_GE(seconds_, 86400);
        EXPECT_LE(seconds_, 86654);
        EXPECT_EQ(g_tavelCtrl.retryCount, 3);
        EXPECT_EQ(g_lastErrorCode, code);
        EXPECT_EQ(timer_, g_tavelCtrl.statusUpdateTimer);
    }
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "retryCount value is"), 0);
}

TEST_F(Backoff, OperatorTimeoutReplacesTheDay)
{
    g_retryTimeout = 0;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(retry(401), 0);
        EXPECT_GE(seconds_, 0);
        EXPECT_LE(seconds_, 254);
    }
    g_retryTimeout = 600;
    retry(401);
    EXPECT_GE(seconds_, 600);
    EXPECT_LE(seconds_, 854);
}

TEST_F(Backoff, TimezoneServiceUnavailableKeepsLastError)
{
    g_lastErrorCode = 110;
    g_tavelCtrl.retryCount = 2;
    ASSERT_EQ(retry(TAVEL_RC_TZ_UNAVAILABLE), 0);
    EXPECT_EQ(g_tavelCtrl.retryCount, 3);
    EXPECT_GE(seconds_, 20);
    EXPECT_LE(seconds_, 39);
    EXPECT_EQ(g_lastErrorCode, 110);
}

TEST_F(Backoff, CodesThatAreNotRetriedTouchNothing)
{
    g_tavelCtrl.retryCount = 4;
    g_lastErrorCode = 110;
    for (int code : {200, 302, 405, 504, 505, 5002}) {
        EXPECT_EQ(retry(code), 1) << code;
        EXPECT_EQ(seconds_, -12345);
        EXPECT_EQ(timer_, nullptr);
        EXPECT_EQ(g_tavelCtrl.retryCount, 4);
        EXPECT_EQ(g_lastErrorCode, 110);
    }
}

TEST_F(Backoff, UnknownTimerTypeLeavesTheTimerAlone)
{
    ASSERT_EQ(retry(503, 3), 0);
    EXPECT_EQ(timer_, nullptr);
}

TEST(Jitter, StaysBelowItsBound)
{
    for (int i = 0; i < 1000; ++i) {
        int j = getRandomJitter(2);
        ASSERT_GE(j, 0);
        ASSERT_LE(j, 254);
    }
}

TEST(ConnStatusMapping, EveryCodeHasItsIndex)
{
    const int codes[][2] = {{110, 1}, {200, 2}, {204, 3},   {400, 4}, {401, 5}, {403, 6}, {500, 7},
                            {503, 8}, {505, 9}, {5000, 10}, {404, 0}, {504, 0}, {0, 0},   {5002, 0}};
    for (const auto &c : codes) {
        EXPECT_EQ(httpCodeToConnStatus(c[0]), c[1]) << c[0];
    }
}

TEST(StatusSuffix, ChosenByStatusAndNeverOverruns)
{
    char url[256] = "https://ob.example.test/status";
    appendStatusSuffix(url, 3);
    EXPECT_STREQ(url, "https://ob.example.test/status?status=SUCCESS");
    char failed[256] = "u";
    appendStatusSuffix(failed, 2);
    EXPECT_STREQ(failed, "u?status=ERROR:CONN_FAILED");
    char none[256] = "u";
    appendStatusSuffix(none, 1);
    EXPECT_STREQ(none, "u");

    char full[257];
    memset(full, 'a', 250);
    full[250] = '\0';
    full[256] = 0x7f; // a guard byte past the field
    appendStatusSuffix(full, 3);
    EXPECT_EQ(strlen(full), 255u);
    EXPECT_EQ(full[256], 0x7f);
}

} // namespace
