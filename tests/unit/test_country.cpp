#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "main.h"
#include "test_env.h"
#include "util.h"

namespace
{

const std::string kDataModel = "/flash/dml/datamodel.conf";

/* A supported-country list laid out the way the platform hands it over. */
class CountryList
{
public:
    explicit CountryList(const std::vector<std::vector<std::string>> &groups)
    {
        entries_.reserve(groups.size());
        for (const auto &codes : groups) {
            std::vector<CountryEntry> entries(codes.size());
            for (size_t i = 0; i < codes.size(); ++i) {
                memset(&entries[i], 0, sizeof(CountryEntry));
                strncpy(entries[i].code, codes[i].c_str(), sizeof(entries[i].code) - 1);
            }
            entries_.push_back(std::move(entries));
        }
        for (auto &entries : entries_) {
            CountryGroup group{};
            group.countryCount = static_cast<int32_t>(entries.size());
            group.countries = entries.empty() ? nullptr : entries.data();
            groups_.push_back(group);
        }
    }
    void install()
    {
        g_supportedCountryList.groupCount = static_cast<int32_t>(groups_.size());
        g_supportedCountryList.groups = groups_.empty() ? nullptr : groups_.data();
    }
    std::vector<CountryGroup> &groups() { return groups_; }

private:
    std::vector<std::vector<CountryEntry>> entries_;
    std::vector<CountryGroup> groups_;
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
        tavelTestWriteFile(kDataModel, "");
        std::filesystem::create_directories(tavelTestPath("/configs"));
    }
    void TearDown() override
    {
        g_supportedCountryList = savedList_;
        g_tavelCtrl.ccApplyTimer = savedTimer_;
        tavel_resetCountryState();
    }

private:
    SupportedCountryList savedList_{};
    timer_t savedTimer_{};
};

std::string readPath(const std::string &path, int size, int lock, int *rc)
{
    std::vector<char> buf(static_cast<size_t>(size), '\0');
    strcpy(buf.data(), "-");
    *rc = read_from_file(path.c_str(), buf.data(), size, lock);
    return std::string(buf.data());
}

std::string readDeviceFile(const char *path, int size, int *rc)
{
    std::vector<char> buf(static_cast<size_t>(size), '\0');
    strcpy(buf.data(), "-");
    *rc = tavel_getDataFromFile(buf.data(), path, size, 0);
    return std::string(buf.data());
}

} // namespace

/* ---- validation ---- */

TEST_F(CountryTest, ValidatesWholeCodesInAnyGroupIgnoringCase)
{
    CountryList list({{"US", "CA"}, {"GB", "FR", "de"}});
    list.install();
    EXPECT_EQ(validateCountryCode("US"), 0);
    EXPECT_EQ(validateCountryCode("us"), 0);
    EXPECT_EQ(validateCountryCode("DE"), 0) << "a match in a later group counts";
    EXPECT_EQ(validateCountryCode("USA"), -1) << "a code that only starts like an entry";
    EXPECT_EQ(validateCountryCode("U"), -1);
    EXPECT_EQ(validateCountryCode(""), -1);
    EXPECT_EQ(validateCountryCode("XX"), -1);
    EXPECT_EQ(validateCountryCode(nullptr), -1);
}

TEST_F(CountryTest, RejectsEverythingWithoutUsableList)
{
    g_supportedCountryList = SupportedCountryList{};
    EXPECT_EQ(validateCountryCode("US"), -1);

    CountryList noEntries({{}, {"US"}});
    noEntries.install();
    EXPECT_EQ(validateCountryCode("US"), -1) << "first group without entry array";

    CountryList list({{"US"}, {"GB"}});
    list.install();
    g_supportedCountryList.groupCount = -3;
    EXPECT_EQ(validateCountryCode("US"), -1);
    g_supportedCountryList.groupCount = 2;
    list.groups()[0].countryCount = -1;
    list.groups()[1].countries = nullptr;
    EXPECT_EQ(validateCountryCode("US"), -1);
    EXPECT_EQ(validateCountryCode("GB"), -1);
}

TEST_F(CountryTest, ReadsUnterminatedEntryCodeWithinItsField)
{
    /* One entry, alone on the heap, its 5-byte code without terminator: an
     * unbounded compare would run into the allocation's end. */
    std::unique_ptr<CountryEntry[]> entry(new CountryEntry[1]);
    memset(entry.get(), 'Z', sizeof(CountryEntry));
    memcpy(entry[0].code, "ABCDE", 5);
    CountryGroup group{};
    group.countryCount = 1;
    group.countries = entry.get();
    g_supportedCountryList.groupCount = 1;
    g_supportedCountryList.groups = &group;
    EXPECT_EQ(validateCountryCode("abcde"), 0);
    EXPECT_EQ(validateCountryCode("ABCD"), -1);
    EXPECT_EQ(validateCountryCode("ABCDEZ"), -1);
}

TEST_F(CountryTest, DefersToMappMark)
{
    CountryList list({{"US"}});
    list.install();
    struct Case {
        std::string content;
        int expected;
    } cases[] = {
        {"MaPp\n", -1}, {std::string("TAVEL,US\0\0", 10), 0}, {"", 0}, {"MAP", 0}, {"\nMAPP", 0},
        {" MAPP", 0},
    };
    for (const auto &c : cases) {
        tavelTestWriteFile(TAVEL_CC_CONFIGURED_BY, c.content);
        EXPECT_EQ(checkCcConfiguredBy(), c.expected) << "content: " << c.content;
        EXPECT_EQ(validateCountryCode("US"), c.expected) << "content: " << c.content;
    }
    std::filesystem::remove(tavelTestPath(TAVEL_CC_CONFIGURED_BY));
    EXPECT_EQ(validateCountryCode("US"), 0) << "absent mark";
    std::filesystem::create_directories(tavelTestPath(TAVEL_CC_CONFIGURED_BY));
    EXPECT_EQ(validateCountryCode("US"), 0) << "a directory reads as nothing";
}

/* ---- applying and parking ---- */

// A two-letter code runs end to end in test_settings.py; a longer one is cut
// into the fixed ten-byte mark.
TEST_F(CountryTest, AppliesWithExactTenByteMark)
{
    update_country_code("ABC");
    EXPECT_EQ(tavelTestReadFile(TAVEL_CC_CONFIGURED_BY), std::string("TAVEL,AB\0\0", 10));
}

TEST_F(CountryTest, FailedDataModelWriteTakesMarkBack)
{
    tavelTestWriteFile(kDataModel, "Fault.dml_setCountryID=1\n");
    update_country_code("US");
    EXPECT_FALSE(tavelTestExists(TAVEL_CC_CONFIGURED_BY));
    EXPECT_TRUE(tavelTestLogHas("error", "dml_setCountryCode failed"));
}

TEST_F(CountryTest, UnwritableMarkStillUpdatesDataModel)
{
    std::filesystem::remove_all(tavelTestPath("/configs"));
    update_country_code("US");
    EXPECT_FALSE(tavelTestExists(TAVEL_CC_CONFIGURED_BY));
    EXPECT_FALSE(tavelTestLogHas("error", "set cc to file failed"));
    EXPECT_NE(tavelTestReadFile(kDataModel).find("Device.DeviceInfo.X_TAVEL_CountryCode=US\n"),
              std::string::npos);
}

// Applying at once and parking run end to end in test_settings.py; here the
// timer bound and a shorter code replacing a longer parked one.
TEST_F(CountryTest, ParksDuringMappOnboarding)
{
    TavelQuietTimer timer;
    ASSERT_TRUE(timer.ok());
    g_tavelCtrl.ccApplyTimer = timer.get();
    tavelTestWriteFile(TAVEL_ONBOARDING_IN_PROGRESS_FILE, "");
    tavelTestWriteFile(TAVEL_COUNTRY_CODE_FILE, "OLD-CODE-THAT-IS-LONGER\n");
    tavel_setCountryCode("US");
    EXPECT_EQ(tavelTestReadFile(TAVEL_COUNTRY_CODE_FILE), "US\n");
    EXPECT_FALSE(tavelTestExists(TAVEL_CC_CONFIGURED_BY));
    EXPECT_EQ(g_timerAliveFlag, 1);
    EXPECT_GT(timer.remainingSeconds(), 0.0);
    EXPECT_LE(timer.remainingSeconds(), TAVEL_CC_APPLY_WAIT);
}

TEST_F(CountryTest, ParkedCodeIsWrittenAsItsBytes)
{
    tavelTestWriteFile(TAVEL_ONBOARDING_IN_PROGRESS_FILE, "");
    const char *hostile[] = {"$(touch inj)", "`touch inj`", "a'b;touch inj;'", "x > inj", "\\c"};
    for (const char *code : hostile) {
        tavel_setCountryCode(code);
        EXPECT_EQ(tavelTestReadFile(TAVEL_COUNTRY_CODE_FILE), std::string(code) + "\n");
    }
}

/* ---- file helpers ---- */

TEST_F(CountryTest, ReadsFirstLineWithinBufferLimits)
{
    const std::string binaryZeros("\0\0\0\0\0\0", 6);
    const struct {
        const char *why;
        std::string content; // "<dir>" makes a directory, "<none>" removes the file
        int size;
        const char *text; // "-" is the untouched buffer
        int rc;
    } cases[] = {
        {"first line", "MAPPXYZ\nsecond\n", 6, "MAPP", 0},
        {"cut to the buffer", "MAPPXYZ\nsecond\n", 4, "MA", 0},
        {"only the line feed is dropped", "U\n", 6, "U", 0},
        {"no line end", "US", 6, "US", 0},
        {"huge line", std::string(100 * 1024, 'Q'), 6, "QQQQ", 0},
        {"binary data ends at the first zero", std::string("A\0B\xff", 4), 4, "A", 0},
        {"first line empty", "\nUS\n", 4, "-", -1},
        {"binary zeros", binaryZeros, 4, "-", -1},
        {"missing file", "<none>", 4, "-", -1},
        {"directory", "<dir>", 4, "-", -1},
        {"a 2-byte buffer cannot hold a character", "US\n", 2, "-", -1},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(tavelTestPath(TAVEL_COUNTRY_CODE_FILE));
        if (c.content == "<dir>") {
            std::filesystem::create_directories(tavelTestPath(TAVEL_COUNTRY_CODE_FILE));
        } else if (c.content != "<none>") {
            tavelTestWriteFile(TAVEL_COUNTRY_CODE_FILE, c.content);
        }
        int rc = 0;
        EXPECT_EQ(readDeviceFile(TAVEL_COUNTRY_CODE_FILE, c.size, &rc), c.text) << c.why;
        EXPECT_EQ(rc, c.rc) << c.why;
    }
    EXPECT_TRUE(tavelTestLogHas("notice", "Read from file = /flash/cc_from_tavel, buf = MA"));
}

/* Both sides of the mark's lock: the write and a locked read each wait for
 * another holder of the lock on the file itself. */
TEST_F(CountryTest, WriteAndLockedReadWaitForTheFileLock)
{
    const std::string path = tavelTestPath(TAVEL_CC_CONFIGURED_BY);
    int rc = 1;
    std::string got;
    const struct {
        const char *what;
        std::function<void()> act;
    } sides[] = {
        {"write",
         [] {
             const char data[4] = {'a', '\0', 'b', '\0'};
             EXPECT_EQ(tavel_setDataToFile(TAVEL_CC_CONFIGURED_BY, data, sizeof(data), 1), 0);
         }},
        {"locked read", [&] { got = readPath(path, 8, 1, &rc); }},
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
    EXPECT_EQ(got, "a") << "the text ends at the first NUL";
    EXPECT_EQ(rc, 0);
}

/* A FIFO would block a plain read for ever; a directory or a device node
 * planted at a marker's path must read as nothing, at once. */
TEST_F(CountryTest, ReadTakesRegularFilesOnly)
{
    const std::string fifo = tavelTestPath("/configs/fifo");
    const std::string dir = tavelTestPath("/configs/dir");
    const std::string zero = tavelTestPath("/configs/zero");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(symlink("/dev/zero", zero.c_str()), 0);
    int rc = 1;
    for (const std::string &p : {fifo, dir, zero}) {
        EXPECT_EQ(readPath(p, 8, 1, &rc), "-") << p;
        EXPECT_EQ(rc, -1) << p;
    }
}
