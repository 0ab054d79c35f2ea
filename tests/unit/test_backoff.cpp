// Retry back-off: which codes are retried, with which delay, and what state
// each rule leaves behind.
#include "retry_seed.h"
#include "test_env.h"

namespace
{

class Backoff : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        tavel_resetRetryState();
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

// One rule application from a given state: the delay range, the count and
// last code it leaves, and which timer it hands back.
TEST_F(Backoff, EachCodeFromEachState)
{
    const timer_t retryT = reinterpret_cast<timer_t>(0x11), statusT = reinterpret_cast<timer_t>(0x22);
    const struct {
        int count, last, code, type, rc, lo, hi, countAfter, lastAfter;
        timer_t timer;
    } cases[] = {
        {0, TAVEL_RC_NO_RESPONSE_CODE, 0, 1, 0, 5, 9, 1, 0, retryT},
        {0, TAVEL_RC_NO_RESPONSE_CODE, 110, 1, 0, 5, 9, 1, 110, retryT},
        {0, TAVEL_RC_NO_RESPONSE_CODE, 503, 1, 0, 5, 9, 1, 503, retryT},
        {2, 110, 503, 1, 0, 5, 9, 1, 503, retryT}, // a different code restarts the growth
        {2, 110, TAVEL_RC_TRANSFER_FAILED, 1, 0, 10, 19, 2, TAVEL_RC_TRANSFER_FAILED, retryT},
        {6, TAVEL_RC_TRANSFER_FAILED, TAVEL_RC_TRANSFER_FAILED, 1, 0, 10, 19, 2, TAVEL_RC_TRANSFER_FAILED,
         retryT},
        {2, 110, TAVEL_RC_TZ_UNAVAILABLE, 1, 0, 20, 39, 3, 110, retryT}, // keeps the last error
        {3, 110, 204, 2, 0, 86400, 86654, 3, 204, statusT},
        {3, 110, 401, 2, 0, 86400, 86654, 3, 401, statusT},
        {3, 110, 500, 2, 0, 86400, 86654, 3, 500, statusT},
        {0, 110, 503, 3, 0, 5, 9, 1, 503, nullptr}, // unknown timer type
        {4, 110, 200, 1, 1, -12345, -12345, 4, 110, nullptr},
        {4, 110, 302, 1, 1, -12345, -12345, 4, 110, nullptr},
        {4, 110, 504, 1, 1, -12345, -12345, 4, 110, nullptr},
        {4, 110, 505, 1, 1, -12345, -12345, 4, 110, nullptr},
        {4, 110, 5002, 1, 1, -12345, -12345, 4, 110, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.code << " after " << c.last << " x" << c.count);
        g_tavelCtrl.retryCount = c.count;
        g_lastErrorCode = c.last;
        ASSERT_EQ(retry(c.code, c.type), c.rc);
        EXPECT_GE(seconds_, c.lo);
        EXPECT_LE(seconds_, c.hi);
        EXPECT_EQ(g_tavelCtrl.retryCount, c.countAfter);
        EXPECT_EQ(g_lastErrorCode, c.lastAfter);
        EXPECT_EQ(timer_, c.timer);
    }
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "ret 204 retryCount value is"), 0);
}

TEST_F(Backoff, RepeatedTransientCodeGrowsToTheCap)
{
    const int low[] = {5, 10, 20, 40, 80, 160, 320, 640, 640, 640};
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(retry(110), 0);
        EXPECT_EQ(g_tavelCtrl.retryCount, i + 1 > 8 ? 8 : i + 1) << "attempt " << i;
        EXPECT_GE(seconds_, low[i]) << "attempt " << i;
        EXPECT_LE(seconds_, 2 * low[i] - 1) << "attempt " << i;
    }
    EXPECT_TRUE(tavelTestLogHas("notice", "ret 110 retryCount value is 8 retryCount seconds is " +
                                              std::to_string(seconds_)));
}

TEST_F(Backoff, OperatorTimeoutReplacesTheDay)
{
    for (int32_t timeout : {0, 600}) {
        g_retryTimeout = timeout;
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(retry(401, 2), 0);
            EXPECT_GE(seconds_, timeout);
            EXPECT_LE(seconds_, timeout + 254);
        }
    }
}

// A fleet whose failures fall in the same second must not draw one delay: a
// seed of the time alone gives every draw of a second (12 draws span at most
// two) the same value, independent draws from 640 values nearly never repeat.
TEST_F(Backoff, DrawsInOneSecondAreIndependent)
{
    std::vector<int> drawn;
    for (int i = 0; i < 12; ++i) {
        g_tavelCtrl.retryCount = 7;
        g_lastErrorCode = 503;
        ASSERT_EQ(retry(503), 0);
        ASSERT_GE(seconds_, 640);
        ASSERT_LE(seconds_, 1279);
        drawn.push_back(seconds_);
    }
    std::sort(drawn.begin(), drawn.end());
    EXPECT_GE(std::unique(drawn.begin(), drawn.end()) - drawn.begin(), 6);
}

// Without the kernel's random bytes the seed comes from the device: two
// devices (serial numbers) or two instants of one device must differ.
TEST(RetrySeed, FallbackDependsOnEveryInput)
{
    const uint32_t base = tavel_deviceSeedMix("SN0001", "boot-a", 1000, 2000);
    EXPECT_EQ(tavel_deviceSeedMix("SN0001", "boot-a", 1000, 2000), base);
    const uint32_t others[] = {tavel_deviceSeedMix("SN0002", "boot-a", 1000, 2000),
                               tavel_deviceSeedMix("SN0001", "boot-b", 1000, 2000),
                               tavel_deviceSeedMix("SN0001", "boot-a", 1001, 2000),
                               tavel_deviceSeedMix("SN0001", "boot-a", 1000, 2001),
                               tavel_deviceSeedMix("SN000", "1boot-a", 1000, 2000),
                               tavel_deviceSeedMix(nullptr, "boot-a", 1000, 2000)};
    for (uint32_t other : others) {
        EXPECT_NE(other, base);
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
    const std::pair<int, const char *> suffixes[] = {
        {3, "?status=SUCCESS"}, {2, "?status=ERROR:CONN_FAILED"}, {1, ""}};
    for (const auto &[status, suffix] : suffixes) {
        char url[256] = "https://ob.example.test/status";
        appendStatusSuffix(url, status);
        EXPECT_EQ(url, "https://ob.example.test/status"s + suffix);
    }
    char full[257];
    memset(full, 'a', 250);
    full[250] = '\0';
    full[256] = 0x7f; // a guard byte past the field
    appendStatusSuffix(full, 3);
    EXPECT_EQ(strlen(full), 255u);
    EXPECT_EQ(full[256], 0x7f);
}

} // namespace
