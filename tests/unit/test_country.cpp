#include "test_env.h"

namespace
{

/* A supported-country list as the platform hands it over, in place while it lives. */
struct CountryList {
    explicit CountryList(const std::vector<std::vector<std::string>> &codes)
    {
        for (const auto &group : codes) {
            std::vector<CountryEntry> &e = entries.emplace_back(group.size()); // zeroed; moves keep data()
            for (size_t i = 0; i < group.size(); ++i) {
                strncpy(e[i].code, group[i].c_str(), sizeof(CountryEntry::code) - 1);
            }
            groups.push_back({0, 0, static_cast<int32_t>(e.size()), e.empty() ? nullptr : e.data()});
        }
        g_supportedCountryList.groupCount = static_cast<int32_t>(groups.size());
        g_supportedCountryList.groups = groups.empty() ? nullptr : groups.data();
    }
    std::vector<std::vector<CountryEntry>> entries;
    std::vector<CountryGroup> groups;
};

class CountryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        savedList_ = g_supportedCountryList;
        savedTimer_ = g_tavelCtrl.ccApplyTimer;
        tavel_resetCountryState();
        tavelTestWriteFile(kTavelTestStore, "");
        std::filesystem::create_directories(tavelTestPath("/configs"));
    }
    void TearDown() override
    {
        g_supportedCountryList = savedList_;
        g_tavelCtrl.ccApplyTimer = savedTimer_;
        tavel_resetCountryState();
    }
    SupportedCountryList savedList_{};
    timer_t savedTimer_{};
};

} // namespace

TEST_F(CountryTest, ValidatesAppliesOrParksTheCodeAndReadsAndWritesTheFiles)
{
    CountryList usable({{"US", "CA"}, {"GB", "FR", "de"}});
    for (const char *code : {"US", "us", "DE"}) { // a match in a later group counts
        EXPECT_EQ(validateCountryCode(code), 0) << code;
    }
    for (const char *code : {"USA", "U", "", "XX", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(validateCountryCode(code), -1) << (code != nullptr ? code : "null");
    }

    g_supportedCountryList = SupportedCountryList{};
    EXPECT_EQ(validateCountryCode("US"), -1) << "no list";
    CountryList noEntries({{}, {"US"}});
    EXPECT_EQ(validateCountryCode("US"), -1) << "first group without entry array";

    CountryList list({{"US"}, {"GB"}});
    g_supportedCountryList.groupCount = -3;
    EXPECT_EQ(validateCountryCode("US"), -1);
    g_supportedCountryList.groupCount = 2;
    list.groups[0].countryCount = -1;
    list.groups[1].countries = nullptr;
    EXPECT_EQ(validateCountryCode("US"), -1);
    EXPECT_EQ(validateCountryCode("GB"), -1);

    /* An unterminated 5-byte code alone on the heap: an unbounded compare runs past it. */
    CountryList one({{"x"}});
    memcpy(one.entries[0][0].code, "ABCDE", 5);
    EXPECT_EQ(validateCountryCode("abcde"), 0);
    EXPECT_EQ(validateCountryCode("ABCD"), -1);
    EXPECT_EQ(validateCountryCode("ABCDEZ"), -1);

    CountryList us({{"US"}});
    const std::pair<std::string, int> marks[] = {
        {"MaPp\n", -1}, {std::string("TAVEL,US\0\0", 10), 0}, {"", 0}, {"MAP", 0}, {"\nMAPP", 0},
        {" MAPP", 0},
    };
    for (const auto &[content, expected] : marks) {
        tavelTestWriteFile(TAVEL_CC_CONFIGURED_BY, content);
        EXPECT_EQ(checkCcConfiguredBy(), expected) << "content: " << content;
        EXPECT_EQ(validateCountryCode("US"), expected) << "content: " << content;
    }
    std::filesystem::remove(tavelTestPath(TAVEL_CC_CONFIGURED_BY));
    EXPECT_EQ(validateCountryCode("US"), 0) << "absent mark";
    std::filesystem::create_directories(tavelTestPath(TAVEL_CC_CONFIGURED_BY));
    EXPECT_EQ(validateCountryCode("US"), 0) << "a directory reads as nothing";

    std::filesystem::remove_all(tavelTestPath(TAVEL_CC_CONFIGURED_BY));
    // A two-letter code runs end to end in test_settings.py; a longer one is cut into the ten-byte
    // mark, which never claims a code the data model does not hold and is only advisory itself.
    update_country_code("ABC");
    EXPECT_EQ(tavelTestReadFile(TAVEL_CC_CONFIGURED_BY), std::string("TAVEL,AB\0\0", 10));

    tavelTestWriteFile(kTavelTestStore, "Fault.dml_setCountryID=1\n");
    update_country_code("US");
    EXPECT_FALSE(tavelTestExists(TAVEL_CC_CONFIGURED_BY));
    EXPECT_TRUE(tavelTestLogHas("error", "dml_setCountryCode failed"));

    tavelTestWriteFile(kTavelTestStore, "");
    std::filesystem::remove_all(tavelTestPath("/configs"));
    update_country_code("US");
    EXPECT_FALSE(tavelTestExists(TAVEL_CC_CONFIGURED_BY));
    EXPECT_FALSE(tavelTestLogHas("error", "set cc to file failed"));
    EXPECT_NE(tavelTestReadFile(kTavelTestStore).find("Device.DeviceInfo.X_TAVEL_CountryCode=US\n"),
              std::string::npos);

    // Parking runs end to end in test_settings.py; here the timer bound, a shorter code
    // replacing a longer parked one, and codes that reach the file as their bytes only.
    sigevent quiet{};
    quiet.sigev_notify = SIGEV_NONE; // never fires: the test only reads how long it was armed
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &quiet, &g_tavelCtrl.ccApplyTimer), 0);
    tavelTestWriteFile(TAVEL_ONBOARDING_IN_PROGRESS_FILE, "");
    tavelTestWriteFile(TAVEL_COUNTRY_CODE_FILE, "OLD-CODE-THAT-IS-LONGER\n");
    tavel_setCountryCode("US");
    itimerspec left{};
    timer_gettime(g_tavelCtrl.ccApplyTimer, &left);
    EXPECT_EQ(tavelTestReadFile(TAVEL_COUNTRY_CODE_FILE), "US\n");
    EXPECT_FALSE(tavelTestExists(TAVEL_CC_CONFIGURED_BY));
    EXPECT_EQ(g_timerAliveFlag, 1);
    EXPECT_GT(left.it_value.tv_sec + left.it_value.tv_nsec, 0);
    EXPECT_LE(left.it_value.tv_sec, TAVEL_CC_APPLY_WAIT);

    for (const char *code : {"$(touch inj)", "`touch inj`", "a'b;touch inj;'", "x > inj", "\\c"}) {
        tavel_setCountryCode(code);
        EXPECT_EQ(tavelTestReadFile(TAVEL_COUNTRY_CODE_FILE), std::string(code) + "\n");
    }
    timer_delete(g_tavelCtrl.ccApplyTimer);

    const struct {
        const char *why, *text; // text "-": the untouched buffer
        std::string content;    // "<dir>" makes a directory, "<none>" removes the file
        int size, rc;
    } cases[] = {
        {"first line", "MAPP", "MAPPXYZ\nsecond\n", 6, 0},
        {"cut to the buffer", "MA", "MAPPXYZ\nsecond\n", 4, 0},
        {"only the line feed is dropped", "U", "U\n", 6, 0},
        {"no line end", "US", "US", 6, 0},
        {"huge line", "QQQQ", std::string(100 * 1024, 'Q'), 6, 0},
        {"binary data ends at the first zero", "A", std::string("A\0B\xff", 4), 4, 0},
        {"first line empty", "-", "\nUS\n", 4, -1},
        {"binary zeros", "-", std::string(6, '\0'), 4, -1},
        {"missing file", "-", "<none>", 4, -1},
        {"directory", "-", "<dir>", 4, -1},
        {"a 2-byte buffer cannot hold a character", "-", "US\n", 2, -1},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(tavelTestPath(TAVEL_COUNTRY_CODE_FILE));
        if (c.content == "<dir>") {
            std::filesystem::create_directories(tavelTestPath(TAVEL_COUNTRY_CODE_FILE));
        } else if (c.content != "<none>") {
            tavelTestWriteFile(TAVEL_COUNTRY_CODE_FILE, c.content);
        }
        std::vector<char> buf(static_cast<size_t>(c.size), '\0');
        buf[0] = '-';
        EXPECT_EQ(tavel_getDataFromFile(buf.data(), TAVEL_COUNTRY_CODE_FILE, c.size, 0), c.rc) << c.why;
        EXPECT_STREQ(buf.data(), c.text) << c.why;
    }
    EXPECT_TRUE(tavelTestLogHas("notice", "Read from file = /flash/cc_from_tavel, buf = MA"));

    /* The write and a locked read of the mark each wait for another holder of its lock. */
    std::filesystem::create_directories(tavelTestPath("/configs"));
    const std::string path = tavelTestPath(TAVEL_CC_CONFIGURED_BY);
    int rc = 1;
    char got[8] = "-";
    const struct {
        const char *what;
        std::function<void()> act;
    } sides[] = {
        {"write",
         [] {
             const char data[4] = {'a', '\0', 'b', '\0'};
             EXPECT_EQ(tavel_setDataToFile(TAVEL_CC_CONFIGURED_BY, data, sizeof(data), 1), 0);
         }},
        {"locked read", [&] { rc = read_from_file(path.c_str(), got, sizeof(got), 1); }},
    };
    for (const auto &side : sides) {
        int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(flock(fd, LOCK_EX), 0);
        std::atomic<bool> done{false};
        std::thread other([&] {
            side.act();
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(done) << side.what << " must wait for the other holder of the lock";
        flock(fd, LOCK_UN);
        other.join();
        close(fd);
    }
    EXPECT_EQ(tavelTestReadFile(TAVEL_CC_CONFIGURED_BY), std::string("a\0b\0", 4));
    EXPECT_STREQ(got, "a") << "the text ends at the first NUL";
    EXPECT_EQ(rc, 0);
}
