// The reader of the onboarding reply's headers: which lines carry which value
// and how each value is cut out of a line that is not NUL-terminated.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_env.h"

using curltest::feedHeader;

namespace
{

class HeaderTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        curltest::ensureAgentState();
        curltest::clearServerData();
    }
};

struct Field {
    const char *name;
    int type;
    char **value;
};

std::vector<Field> heapFieldTable()
{
    return {{"url", HDR_URL, &g_serverData.mgmtUrl},
            {"name", HDR_NAME, &g_serverData.cdpusername},
            {"pwd", HDR_PWD, &g_serverData.cdppassword},
            {"tenantid", HDR_TENANTID, &g_serverData.tenantID},
            {"l1url", HDR_L1URL, &g_serverData.l1url},
            {"l2url", HDR_L2URL, &g_serverData.l2url},
            {"remotemappurl", HDR_REMOTEMAPPURL, &g_serverData.remotemappurl},
            {"kprconfigurl", HDR_KPRCONFIGURL, &g_serverData.kprconfigurl},
            {"kprconfigapikey", HDR_KPRCONFIGAPIKEY, &g_serverData.kprconfigapikey}};
}

} // namespace

TEST_F(HeaderTest, TypesFollowExactCaseSensitiveNames)
{
    const std::pair<const char *, int> known[] = {{"url", 1},
                                                  {"name", 2},
                                                  {"pwd", 3},
                                                  {"opdesc", 4},
                                                  {"snetdesc", 5},
                                                  {"tenantid", 6},
                                                  {"timezone", 7},
                                                  {"countrycode", 8},
                                                  {"l1url", 9},
                                                  {"l2url", 10},
                                                  {"remotemappurl", 11},
                                                  {"kprconfigurl", 12},
                                                  {"kprconfigapikey", 13}};
    for (const auto &k : known) {
        std::string line = std::string(k.first) + ": v\r\n";
        EXPECT_EQ(getHeaderType(line.c_str()), k.second) << k.first;
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

TEST_F(HeaderTest, FirstWordStopsAtAnyWhiteSpace)
{
    for (const Field &f : heapFieldTable()) {
        std::string name = f.name;
        feedHeader(name + ": value1\r\n");
        EXPECT_STREQ(*f.value, "value1") << name << ": CR LF is not part of the value";
        feedHeader(name + ":value2\r\n");
        EXPECT_STREQ(*f.value, "value2") << name << ": no blank after the colon";
        feedHeader(name + ": \t  spaced value\r\n");
        EXPECT_STREQ(*f.value, "spaced") << name;
    }
    const char *stops[] = {"\t", "\r", "\n", "\v", "\f", " "};
    for (const char *stop : stops) {
        feedHeader(std::string("tenantid: ab") + stop + "cd\r\n");
        EXPECT_STREQ(g_serverData.tenantID, "ab") << static_cast<int>(stop[0]);
    }
    // Without any line ending the value runs to the last byte and no further.
    feedHeader("url: https://acs.example:7547/x");
    EXPECT_STREQ(g_serverData.mgmtUrl, "https://acs.example:7547/x");
}

TEST_F(HeaderTest, EmptyOrUnscannableValueClearsTheEarlierOne)
{
    feedHeader("url: https://first\r\n");
    ASSERT_STREQ(g_serverData.mgmtUrl, "https://first");
    feedHeader("url:\r\n");
    EXPECT_STREQ(g_serverData.mgmtUrl, "");

    feedHeader("name: admin\r\n");
    feedHeader("name:    \r\n");
    EXPECT_STREQ(g_serverData.cdpusername, "");

    // Recognised by name after leading colons, but not of the form "name:".
    feedHeader("tenantid: t1\r\n");
    feedHeader(":tenantid: t2\r\n");
    EXPECT_STREQ(g_serverData.tenantID, "");
}

TEST_F(HeaderTest, DescriptionsAreRawBytesKeepingTheCarriageReturn)
{
    feedHeader("opdesc: Op One\r\n");
    EXPECT_EQ(std::string(g_serverData.operdesc), "Op One\r");
    feedHeader("opdesc: Op One\n");
    EXPECT_EQ(std::string(g_serverData.operdesc), "Op One");
    feedHeader("snetdesc: Sub  Net\r\n");
    EXPECT_EQ(std::string(g_serverData.subnetdesc), "Sub  Net\r");
    feedHeader("snetdesc: Sub Net\n");
    EXPECT_EQ(std::string(g_serverData.subnetdesc), "Sub Net");
    // No blank after the colon: the description loses its first character.
    feedHeader("opdesc:Operator\r\n");
    EXPECT_EQ(std::string(g_serverData.operdesc), "perator\r");
}

TEST_F(HeaderTest, DescriptionTooShortForAnyTextIsEmpty)
{
    feedHeader("opdesc: x\r\n");
    ASSERT_EQ(std::string(g_serverData.operdesc), "x\r");
    for (const char *line : {"opdesc: \n", "opdesc:\r\n", "opdesc", "opdesc:"}) {
        feedHeader(line);
        EXPECT_STREQ(g_serverData.operdesc, "") << line;
    }
    feedHeader("snetdesc: y\r\n");
    feedHeader("snetdesc: \n");
    EXPECT_STREQ(g_serverData.subnetdesc, "");
    feedHeader("snetdesc: z\n");
    EXPECT_STREQ(g_serverData.subnetdesc, "z");
}

TEST_F(HeaderTest, NaMeansEmptyForCloudFieldsOnly)
{
    for (const Field &f : heapFieldTable()) {
        feedHeader(std::string(f.name) + ": NA\r\n");
        bool cloud = f.type >= HDR_L1URL;
        EXPECT_STREQ(*f.value, cloud ? "" : "NA") << f.name;
        feedHeader(std::string(f.name) + ": NAX\r\n");
        EXPECT_STREQ(*f.value, "NAX") << f.name;
        feedHeader(std::string(f.name) + ": na\r\n");
        EXPECT_STREQ(*f.value, "na") << f.name;
    }
}

TEST_F(HeaderTest, CountryCodeKeepsAtMostThreeCharacters)
{
    feedHeader("countrycode: US\r\n");
    EXPECT_STREQ(g_serverData.countryCode, "US");
    feedHeader("countrycode: DEUX\r\n");
    EXPECT_STREQ(g_serverData.countryCode, "DEU");
    feedHeader("countrycode:FR\r\n");
    EXPECT_STREQ(g_serverData.countryCode, "FR");
    feedHeader("countrycode: \r\n");
    EXPECT_STREQ(g_serverData.countryCode, "");
    feedHeader("countrycode: ABCDEFGHIJ");
    EXPECT_STREQ(g_serverData.countryCode, "ABC");
    EXPECT_EQ(g_serverData.countryCode[3], '\0');
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

TEST_F(HeaderTest, EmbeddedNulEndsTheValue)
{
    std::string line("url: abc\0def\r\n", 14);
    feedHeader(line);
    EXPECT_STREQ(g_serverData.mgmtUrl, "abc");
}
