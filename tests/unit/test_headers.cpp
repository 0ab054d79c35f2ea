// The reader of the onboarding reply's headers: which lines carry which value
// and how each value is cut out of a line that is not NUL-terminated.
#include <string>

#include <gtest/gtest.h>

#include "reply_fields.h"
#include "test_env.h"

using curltest::feedHeader;

namespace
{

class HeaderTest : public ::testing::Test
{
protected:
    void SetUp() override { curltest::freshServerData(); }
};

// The stored value of a field by its header name; the country code otherwise.
const char *storedValue(const std::string &name)
{
    for (const ReplyField &f : kReplyFields) {
        if (f.isHeap() && name == f.name) {
            return g_serverData.*f.heap;
        }
    }
    return g_serverData.countryCode;
}

} // namespace

TEST_F(HeaderTest, TypesFollowExactCaseSensitiveNames)
{
    const char *known[] = {
        "url",         "name",  "pwd",   "opdesc",        "snetdesc",     "tenantid",       "timezone",
        "countrycode", "l1url", "l2url", "remotemappurl", "kprconfigurl", "kprconfigapikey"};
    for (int type = 1; type <= 13; ++type) {
        EXPECT_EQ(getHeaderType((std::string(known[type - 1]) + ": v\r\n").c_str()), type) << known[type - 1];
    }
    const char *ignored[] = {
        "URL: x\r\n", "Url: x\r\n", "url : x\r\n", "urls: x\r\n",  "HTTP/1.1 200 OK\r\n",
        "\r\n",       "",           ":::\r\n",     "x-url: x\r\n", "Content-Length: 0\r\n",
        "l1url\r\n"};
    for (const char *line : ignored) {
        EXPECT_EQ(getHeaderType(line), HDR_NONE) << line;
    }
    // Leading colons are skipped before the name is taken.
    EXPECT_EQ(getHeaderType("::url: x\r\n"), HDR_URL);
}

TEST_F(HeaderTest, NameIsJudgedOnTheFirst255BytesOnly)
{
    std::string longName(300, 'a');
    EXPECT_EQ(feedHeader(longName + ": v\r\n"), longName.size() + 5);
    EXPECT_EQ(getHeaderType((longName + ": v\r\n").c_str()), HDR_NONE);
    // Only the first 255 bytes are looked at: a name pushed past them by
    // leading colons is lost, one just inside them is still found.
    EXPECT_EQ(getHeaderType((std::string(255, ':') + "url: v\r\n").c_str()), HDR_NONE);
    EXPECT_EQ(getHeaderType((std::string(250, ':') + "url: v\r\n").c_str()), HDR_URL);
}

// Each line is fed after "<field>: old" for its own field, so a line that
// clears or keeps the earlier value shows it.
TEST_F(HeaderTest, ValueRulesPerLine)
{
    const char *const kOpdesc = "opdesc", *const kSnet = "snetdesc", *const kTenant = "tenantid";
    const struct {
        const char *field;
        std::string line;
        const char *expected;
    } cases[] = {
        {"url", "url: value1\r\n", "value1"}, // CR LF is not part of the value
        {"url", "url:value2\r\n", "value2"},
        {"url", "url: \t  spaced value\r\n", "spaced"},
        {"url", "url: https://acs.example:7547/x", "https://acs.example:7547/x"}, // to the last byte
        {"url", "url:\r\n", ""},
        {"name", "name:    \r\n", ""},
        {kTenant, ":tenantid: t2\r\n", ""}, // recognised by name, not of the form "name:"
        {kTenant, "tenantid: ab\tcd\r\n", "ab"},
        {kTenant, "tenantid: ab\rcd\r\n", "ab"},
        {kTenant, "tenantid: ab\ncd\r\n", "ab"},
        {kTenant, "tenantid: ab\vcd\r\n", "ab"},
        {kTenant, "tenantid: ab\fcd\r\n", "ab"},
        {"url", std::string("url: abc\0def\r\n", 14), "abc"},
        // Descriptions are raw bytes: the CR stays, a missing blank costs the
        // first character, and too short a line gives nothing.
        {kOpdesc, "opdesc: Op One\r\n", "Op One\r"},
        {kOpdesc, "opdesc: Op One\n", "Op One"},
        {kSnet, "snetdesc: Sub  Net\r\n", "Sub  Net\r"},
        {kOpdesc, "opdesc:Operator\r\n", "perator\r"},
        {kOpdesc, "opdesc: \n", ""},
        {kOpdesc, "opdesc:\r\n", ""},
        {kOpdesc, "opdesc", ""},
        {kOpdesc, "opdesc:", ""},
        {kSnet, "snetdesc: \n", ""},
        {kSnet, "snetdesc: z\n", "z"},
        {"countrycode", "countrycode: US\r\n", "US"},
        {"countrycode", "countrycode: DEUX\r\n", "DEU"},
        {"countrycode", "countrycode:FR\r\n", "FR"},
        {"countrycode", "countrycode: \r\n", ""},
        {"countrycode", "countrycode: ABCDEFGHIJ", "ABC"},
    };
    for (const auto &c : cases) {
        feedHeader(std::string(c.field) + ": old\r\n");
        feedHeader(c.line);
        EXPECT_STREQ(storedValue(c.field), c.expected) << c.line;
    }
}

TEST_F(HeaderTest, NaMeansEmptyForCloudFieldsOnly)
{
    // The descriptions are raw text (ValueRulesPerLine); every other stored
    // value is a word.
    for (const ReplyField &f : kReplyFields) {
        if (!f.isHeap() || f.type == HDR_OPDESC || f.type == HDR_SNETDESC) {
            continue;
        }
        char *const &value = g_serverData.*f.heap;
        feedHeader(std::string(f.name) + ": NA\r\n");
        EXPECT_STREQ(value, f.type >= HDR_L1URL ? "" : "NA") << f.name;
        feedHeader(std::string(f.name) + ": NAX\r\n");
        EXPECT_STREQ(value, "NAX") << f.name;
        feedHeader(std::string(f.name) + ": na\r\n");
        EXPECT_STREQ(value, "na") << f.name;
        feedHeader(std::string(f.name) + ":\tv w\r\n");
        EXPECT_STREQ(value, "v") << f.name;
    }
}

TEST_F(HeaderTest, LaterHeaderWinsAndAbsentHeaderKeepsValue)
{
    feedHeader("url: https://one\r\n");
    feedHeader("l1url: https://cloud\r\n");
    feedHeader("url: https://two\r\n");
    EXPECT_STREQ(g_serverData.mgmtUrl, "https://two");
    // A later reply without the header leaves the earlier value alone.
    feedHeader("HTTP/1.1 200 OK\r\n");
    feedHeader("\r\n");
    EXPECT_STREQ(g_serverData.l1url, "https://cloud");
}

TEST_F(HeaderTest, TinyLinesChangeNothingAndEveryLineIsAccepted)
{
    feedHeader("url: keep\r\n");
    feedHeader("countrycode: GB\r\n");
    const std::string lines[] = {"", "\n", "u", "\r\n"};
    for (const std::string &line : lines) {
        EXPECT_EQ(feedHeader(line), line.size());
    }
    EXPECT_STREQ(g_serverData.mgmtUrl, "keep");
    EXPECT_STREQ(g_serverData.countryCode, "GB");

    // size * nmemb is the length libcurl is told was handled.
    std::string line = "url: abcd\r\n";
    std::unique_ptr<char[]> buf(new char[line.size()]);
    memcpy(buf.get(), line.data(), line.size());
    EXPECT_EQ(header_handler(buf.get(), line.size(), 1, nullptr), line.size());
}

TEST_F(HeaderTest, TimezoneLineStoresNothingHere)
{
    feedHeader("url: keep\r\n");
    EXPECT_EQ(feedHeader("timezone: Europe\\/Berlin,CET-1CEST\r\n"), 36u);
    EXPECT_STREQ(g_serverData.mgmtUrl, "keep");
    EXPECT_STREQ(g_serverData.tenantID, "");
}

TEST_F(HeaderTest, PasswordLineIsStoredButNeverLogged)
{
    size_t mark = tavelTestLog().size();
    feedHeader("pwd: s3cr3t-value\r\n");
    feedHeader("x-note: has pwd inside s3cr3t-two\r\n");
    feedHeader("name: operator-a\r\n");
    std::string log = tavelTestLog().substr(mark);
    EXPECT_STREQ(g_serverData.cdppassword, "s3cr3t-value");
    EXPECT_EQ(log.find("s3cr3t"), std::string::npos) << log;
    EXPECT_NE(log.find(" header value is name: operator-a"), std::string::npos) << log;
    EXPECT_NE(log.find("Size 1 nmemb: 18"), std::string::npos) << log;
}

TEST_F(HeaderTest, LoggedLineStopsAtItsLength)
{
    // The bytes after the line in memory must never reach the log.
    std::string mem = "tenantid: t-42\r\nTRAILING-GARBAGE";
    size_t n = strlen("tenantid: t-42\r\n");
    size_t mark = tavelTestLog().size();
    header_handler(&mem[0], 1, n, nullptr);
    std::string log = tavelTestLog().substr(mark);
    EXPECT_STREQ(g_serverData.tenantID, "t-42");
    EXPECT_NE(log.find("tenantid: t-42"), std::string::npos);
    EXPECT_EQ(log.find("TRAILING"), std::string::npos) << log;
}

TEST_F(HeaderTest, MegabyteValueIsStoredWhole)
{
    std::string value(1024 * 1024, 'k');
    feedHeader("kprconfigapikey: " + value + "\r\n");
    EXPECT_EQ(std::string(g_serverData.kprconfigapikey), value);
    feedHeader("opdesc: " + value + "\r\n");
    EXPECT_EQ(strlen(g_serverData.operdesc), value.size() + 1);
    // Shrinking back to a short value leaves no trace of the long one.
    feedHeader("kprconfigapikey: short\r\n");
    EXPECT_STREQ(g_serverData.kprconfigapikey, "short");
}
