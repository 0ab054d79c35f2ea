// The reader of the onboarding reply's headers: which lines carry which value
// and how each value is cut out of a line that is not NUL-terminated.
#include "test_env.h"

namespace
{

class HeaderTest : public ::testing::Test
{
protected:
    void SetUp() override { tavelTestFreshReply(); }
};

size_t feed(const std::string &line)
{
    return header_handler(tavelTestBlock(line).get(), 1, line.size(), nullptr);
}

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

TEST_F(HeaderTest, TypesFollowExactNamesValuesTheRulesOfTheirFieldAndTheTraceHidesPasswords)
{
    const char *known[] = {
        "url",         "name",  "pwd",   "opdesc",        "snetdesc",     "tenantid",       "timezone",
        "countrycode", "l1url", "l2url", "remotemappurl", "kprconfigurl", "kprconfigapikey"};
    for (int type = 1; type <= 13; ++type) {
        EXPECT_EQ(getHeaderType((std::string(known[type - 1]) + ": v\r\n").c_str()), type) << known[type - 1];
    }
    for (const char *line : {"URL: x\r\n", "Url: x\r\n", "url : x\r\n", "urls: x\r\n", "HTTP/1.1 200 OK\r\n",
                             "\r\n", "", ":::\r\n", "x-url: x\r\n", "Content-Length: 0\r\n", "l1url\r\n"}) {
        EXPECT_EQ(getHeaderType(line), HDR_NONE) << line;
    }
    // Leading colons are skipped, but a name pushed past the first 255 bytes is lost.
    EXPECT_EQ(getHeaderType("::url: x\r\n"), HDR_URL);
    EXPECT_EQ(getHeaderType((std::string(255, ':') + "url: v\r\n").c_str()), HDR_NONE);
    EXPECT_EQ(getHeaderType((std::string(250, ':') + "url: v\r\n").c_str()), HDR_URL);
    const std::string longName(300, 'a');
    EXPECT_EQ(feed(longName + ": v\r\n"), longName.size() + 5);
    EXPECT_EQ(getHeaderType((longName + ": v\r\n").c_str()), HDR_NONE);

    // A later reply without a header, a line too short to hold one and the
    // time-zone line (stored elsewhere) keep the values received before.
    feed("url: https://one\r\n");
    feed("l1url: https://cloud\r\n");
    feed("url: https://two\r\n");
    feed("countrycode: GB\r\n");
    for (const std::string line :
         {"HTTP/1.1 200 OK\r\n", "\r\n", "", "\n", "u", "timezone: Europe\\/Berlin,CET-1CEST\r\n"}) {
        EXPECT_EQ(feed(line), line.size()) << line;
    }
    EXPECT_STREQ(g_serverData.mgmtUrl, "https://two");
    EXPECT_STREQ(g_serverData.l1url, "https://cloud");
    EXPECT_STREQ(g_serverData.countryCode, "GB");
    EXPECT_STREQ(g_serverData.tenantID, "");
    // A megabyte value is stored whole, and a short one after it leaves no trace of it.
    std::string value(1024 * 1024, 'k');
    feed("kprconfigapikey: " + value + "\r\n");
    EXPECT_EQ(std::string(g_serverData.kprconfigapikey), value);
    feed("opdesc: " + value + "\r\n");
    EXPECT_EQ(strlen(g_serverData.operdesc), value.size() + 1);
    feed("kprconfigapikey: short\r\n");
    EXPECT_STREQ(g_serverData.kprconfigapikey, "short");

    // size * nmemb is the length libcurl is told was handled.
    const std::string url = "url: abcd\r\n";
    EXPECT_EQ(header_handler(tavelTestBlock(url).get(), url.size(), 1, nullptr), url.size());

    size_t mark = tavelTestLog().size();
    feed("pwd: s3cr3t-value\r\n");
    feed("x-note: has pwd inside s3cr3t-two\r\n");
    feed("name: operator-a\r\n");
    // The bytes after the line in memory must never reach the log.
    std::string mem = "tenantid: t-42\r\nTRAILING-GARBAGE";
    header_handler(&mem[0], 1, strlen("tenantid: t-42\r\n"), nullptr);
    std::string log = tavelTestLog().substr(mark);
    EXPECT_STREQ(g_serverData.cdppassword, "s3cr3t-value");
    EXPECT_STREQ(g_serverData.tenantID, "t-42");
    EXPECT_EQ(log.find("s3cr3t"), std::string::npos) << log;
    EXPECT_NE(log.find(" header value is name: operator-a"), std::string::npos) << log;
    EXPECT_NE(log.find("Size 1 nmemb: 18"), std::string::npos) << log;
    EXPECT_NE(log.find("tenantid: t-42"), std::string::npos) << log;
    EXPECT_EQ(log.find("TRAILING"), std::string::npos) << log;

    // Each line is fed after "<field>: old" for the field it names, so a line
    // that clears or keeps the earlier value shows it.
    const std::pair<std::string, const char *> cases[] = {
        {"url: value1\r\n", "value1"}, // CR LF is not part of the value
        {"url:value2\r\n", "value2"},
        {"url: \t  spaced value\r\n", "spaced"},
        {"url: https://acs.example:7547/x", "https://acs.example:7547/x"}, // to the last byte
        {"url:\r\n", ""},
        {"name:    \r\n", ""},
        {":tenantid: t2\r\n", ""}, // recognised by name, not of the form "name:"
        {"tenantid: ab\tcd\r\n", "ab"},
        {"tenantid: ab\rcd\r\n", "ab"},
        {"tenantid: ab\ncd\r\n", "ab"},
        {"tenantid: ab\vcd\r\n", "ab"},
        {"tenantid: ab\fcd\r\n", "ab"},
        {std::string("url: abc\0def\r\n", 14), "abc"},
        // Descriptions are raw bytes: the CR stays, a missing blank costs the
        // first character, and too short a line gives nothing.
        {"opdesc: Op One\r\n", "Op One\r"},
        {"opdesc: Op One\n", "Op One"},
        {"snetdesc: Sub  Net\r\n", "Sub  Net\r"},
        {"opdesc:Operator\r\n", "perator\r"},
        {"opdesc: \n", ""},
        {"opdesc:\r\n", ""},
        {"opdesc", ""},
        {"opdesc:", ""},
        {"snetdesc: \n", ""},
        {"snetdesc: z\n", "z"},
        {"countrycode: US\r\n", "US"},
        {"countrycode: DEUX\r\n", "DEU"},
        {"countrycode:FR\r\n", "FR"},
        {"countrycode: \r\n", ""},
        {"countrycode: ABCDEFGHIJ", "ABC"},
    };
    for (const auto &[line, expected] : cases) {
        const std::string name = line.substr(0, line.find(':', 1)), field = name.substr(name.rfind(':') + 1);
        feed(field + ": old\r\n");
        feed(line);
        EXPECT_STREQ(storedValue(field), expected) << line;
    }

    // The descriptions are raw text (above); every other stored value is a word.
    for (const ReplyField &f : kReplyFields) {
        if (!f.isHeap() || f.type == HDR_OPDESC || f.type == HDR_SNETDESC) {
            continue;
        }
        const std::pair<const char *, const char *> values[] = {
            {" NA", f.type >= HDR_L1URL ? "" : "NA"}, {" NAX", "NAX"}, {" na", "na"}, {"\tv w", "v"}};
        for (const auto &[value, stored] : values) {
            feed(std::string(f.name) + ":" + value + "\r\n");
            EXPECT_STREQ(g_serverData.*f.heap, stored) << f.name << ":" << value;
        }
    }
}
