#include "test_env.h"

namespace
{

const std::string kParisLine = "2,CET,Paris,\"CET-1CEST,M3.5.0,M10.5.0/3\",\"Europe/Paris\"\n";
const std::string kMapping = "1,GMT,London,\"GMT0BST,M3.5.0/1,M10.5.0\",\"Europe/London\"\n" + kParisLine +
                             "3,CET,Paris,\"SECOND\",\"Europe/Paris-second\"\n"
                             "4,ART,Buenos_Aires,\"<-03>3\",\"America/Argentina/Buenos_Aires\"\n";

/* Runs the lookup for the received code and city; returns the selected line, or "<none>". */
std::string lookup(const char *code = "CET", const char *city = "Paris", int size = 500)
{
    memset(&g_timezoneData, 0, sizeof(g_timezoneData));
    tavel_copyText(g_timezoneData.timezone, sizeof(g_timezoneData.timezone), code, 49);
    tavel_copyText(g_timezoneData.cityname, sizeof(g_timezoneData.cityname), city, 49);
    std::unique_ptr<char[]> line(new char[static_cast<size_t>(size)]());
    if (gettimezonecmd(line.get(), size) != 0) {
        return "<none>";
    }
    EXPECT_LT(strnlen(line.get(), static_cast<size_t>(size)), static_cast<size_t>(size));
    return line.get();
}

class TimezoneTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        memset(&g_timezoneData, 0, sizeof(g_timezoneData));
        tavel_resetTimezoneHeaderState();
    }
    static void parseHeader(const std::string &h)
    {
        handle_timezoneHeader(tavelTestBlock(h).get(), h.size());
    }
};

} // namespace

TEST_F(TimezoneTest, ZoneAndErrorHeadersMalformedValuesAndTheTextHelpers)
{
    const struct {
        const char *id, *continentCity, *city;
    } cases[] = {
        {"Europe\\/Paris", "Europe/Paris", "Paris"},
        {"Europe/Paris", "Europe/Paris", "Paris"},
        {"America\\/Indiana\\/Knox", "America/Indiana/Knox", "Knox"},
        /* 32 characters as received: the 31-character limit counts escapes. */
        {"America\\/Argentina\\/Buenos_Aires", "America/Argentina/Buenos_Aire", "Buenos_Aire"},
        {"America/Argentina/Buenos_Aires", "America/Argentina/Buenos_Aires", "Buenos_Aires"},
        {"A\\/B\\/C\\/D", "A/B/C/D", "C\\/D"},
        {"A/B/C/D/E", "A/B/C/D/E", "C/D/E"},
    };
    for (const auto &c : cases) {
        parseHeader("timezone: {\"code\":\"CET\",\"name\":\"Central European Time\",\"id\":\""s + c.id +
                    "\"}");
        EXPECT_STREQ(g_timezoneData.timezone, "CET") << c.id;
        EXPECT_STREQ(g_timezoneCode, "CET") << c.id;
        EXPECT_STREQ(g_timezoneData.cityname, c.city) << c.id;
        EXPECT_STREQ(g_continent_city, c.continentCity) << c.id;
        EXPECT_STREQ(g_timezoneData.errorcode, "") << c.id;
    }
    EXPECT_TRUE(tavelTestLogHas("notice", "g_continent_city is =  A/B/C/D/E"));
    EXPECT_TRUE(tavelTestLogHas("notice", " g_timezoneData.cityname value is C/D/E"));
    for (const char *trace : {"fourth token is A", "fifth token is B", "sixth token is C/D/E"}) {
        EXPECT_TRUE(tavelTestLogHas("notice", trace)) << trace;
    }
    // An error clears the zone but keeps the code received before.
    for (const char *header : {"timezone: 100", "timezone:100", "timezone:   100\r\n"}) {
        parseHeader(header);
        EXPECT_STREQ(g_timezoneData.errorcode, "100") << header;
        EXPECT_STREQ(g_timezoneData.timezone, "") << header;
        EXPECT_STREQ(g_timezoneData.cityname, "") << header;
    }
    EXPECT_TRUE(tavelTestLogHas("notice", " erro code is 100"));
    EXPECT_STREQ(g_timezoneCode, "CET");

    parseHeader("t"); // too short to be looked at
    parseHeader("");
    handle_timezoneHeader(nullptr, 20);
    EXPECT_STREQ(g_timezoneData.errorcode, "100");
    parseHeader("timezone: 101");
    EXPECT_STREQ(g_timezoneData.errorcode, "101");

    const std::string big(100 * 1024, 'C');
    const struct {
        std::string header, timezone, cityname, errorcode;
    } malformed[] = {
        {"timezone:", "", "", ""},
        {":::", "", "", ""},
        {"tz: 100", "", "", ""},
        {"timezone: " + big, "", "", std::string(49, 'C')},
        {"timezone: {\"code\":\"" + big + "\",\"n\",\"id\":\"A/B\"}", std::string(31, 'C'), "B", ""},
        {"timezone: {\"code\":\"CET\"}", "CET", "", ""},
        {"timezone: {\"code\":\"CET\",\"n\",\"id\":\"Europe\"}", "CET", "", ""},
        {"timezone: {\"code\":\"CET\",\"n\", \"id\":\"Europe/Paris\"}", "CET", "", ""},
        {"timezone: {\"code\":\"CET\",\"n\",\"id\":\"/Paris\"}", "CET", "", ""},
        {"timezone: {\"code\":\"CET,\"n\",\"id\":\"Europe/Paris", "CET", "Paris", ""},
        {"timezone: {\"code\":\"", "", "", ""},
        {"timezone: {\"code\":\"\",\"n\",\"id\":\"\"}", "", "", ""},
        {"timezone: 100 code", "", "", ""},
        {"timezone: {\"x\":\"1\"},\"code\",\"id\":\"A/B\"", "", "", "{\"x\":\"1\"},\"code\",\"id\":\"A/B\""},
        {"timezone: {\"code\":\"" + std::string(40, 'K') + "\",\"n\",\"id\":\"Europe/" +
             std::string(40, 'P') + "\"}",
         std::string(31, 'K'), std::string(24, 'P'), ""},
        {"timezone: 1\0"
         "00"s,
         "", "", "1"},
    };
    for (const auto &c : malformed) {
        const std::string shown = c.header.substr(0, 80);
        parseHeader(c.header);
        for (const char *field :
             {g_timezoneData.timezone, g_timezoneData.cityname, g_timezoneData.errorcode, g_continent_city}) {
            ASSERT_LT(strnlen(field, 50), 50u) << shown;
        }
        EXPECT_EQ(g_timezoneData.timezone, c.timezone) << shown;
        EXPECT_EQ(g_timezoneData.cityname, c.cityname) << shown;
        EXPECT_EQ(g_timezoneData.errorcode, c.errorcode) << shown;
    }

    const std::pair<const char *, const char *> texts[] = {{"Europe/Paris", "Europe/Paris"},
                                                           {"Europe\\/Paris", "Europe/Paris"},
                                                           {"a\\\\b", "a\\b"},
                                                           {"ab\\", "ab"},
                                                           {"\\\\\\", "\\"},
                                                           {"", ""}};
    for (const auto &[in, out] : texts) {
        char buf[32];
        tavel_copyText(buf, sizeof(buf), in, sizeof(buf) - 1);
        removeBackslashes(buf);
        EXPECT_STREQ(buf, out) << in;
    }

    /* Outputs of exactly their documented sizes, pre-filled, on the heap. */
    const struct {
        std::string line, zone, name;
    } lines[] = {
        {"a,b,c,\"X,Y\",\"Zone\"\n", "\"X,Y\"", "Zone\n"},
        {"a,,b,c,\"X\",\"Zone\"\n", "\"X\"", "Zone\n"}, // an empty field moves the later ones forward
        {"a,b,c\n", "", ""},
        {"a,b,c," + std::string(60, 'T') + ",\"" + std::string(70, 'n') + "\"\n", std::string(49, 'T'),
         std::string(51, 'n')},
    };
    for (auto c : lines) {
        std::unique_ptr<char[]> zone(new char[50]), name(new char[52]);
        memset(zone.get(), 'Z', 50);
        memset(name.get(), 'N', 52);
        gettimezoneandzonename(&c.line[0], zone.get(), name.get());
        EXPECT_EQ(zone.get(), c.zone) << c.line;
        EXPECT_EQ(name.get(), c.name) << c.line;
    }
}

TEST_F(TimezoneTest, LookupSelectsTheFirstWholeLineWithCodeAndCityOfAUsableFile)
{
    tavelTestWriteFile(TAVEL_TIMEZONE_MAPPING_FILE, kMapping);
    EXPECT_EQ(lookup(), kParisLine);
    EXPECT_TRUE(tavelTestLogHas(
        "notice", " buf value is cat /usr/configs/timezonemapping.csv | grep '\\CET' | grep Paris"));

    EXPECT_EQ(lookup("ART", "Buenos_Aires"),
              "4,ART,Buenos_Aires,\"<-03>3\",\"America/Argentina/Buenos_Aires\"\n");
    EXPECT_EQ(lookup("GMT"), "<none>") << "the code and the city must be on the same line";
    EXPECT_EQ(lookup("CET", ""), "<none>") << "nothing received selects nothing";

    EXPECT_EQ(lookup("CET", "Paris", 16), kParisLine.substr(0, 15)) << "bounded by the caller's buffer";
    EXPECT_EQ(tavelTestReadFile("/var/log/history.log"), "") << "lookups record no history";

    tavelTestWriteFile(TAVEL_TIMEZONE_MAPPING_FILE, "");
    EXPECT_EQ(lookup(), "<none>");
    EXPECT_TRUE(tavelTestLogHas("error", "read eof -content is empty "));

    /* What could hang the agent or feed it without end fails the lookup with
     * one line that says why (which files: tavel_openRegular, test_files.cpp). */
    const std::string path = tavelTestPath(TAVEL_TIMEZONE_MAPPING_FILE);
    const struct {
        const char *what, *why;
        void (*make)(const std::string &);
    } refused[] = {
        {"FIFO", "not a regular file", [](const std::string &p) { ASSERT_EQ(mkfifo(p.c_str(), 0600), 0); }},
        {"over 1 MiB", "over 1 MiB",
         [](const std::string &p) { std::ofstream(p) << std::string((1 << 20) + 1, '\n'); }},
    };
    for (const auto &c : refused) {
        std::filesystem::remove_all(path);
        c.make(path);
        int before = tavelTestCount(tavelTestLog(), "refused: ");
        EXPECT_EQ(lookup(), "<none>") << c.what;
        EXPECT_EQ(tavelTestCount(tavelTestLog(), "refused: "), before + 1) << c.what;
        EXPECT_TRUE(tavelTestLogHas(
            "error", std::string("timezone mapping file " TAVEL_TIMEZONE_MAPPING_FILE " refused: ") + c.why))
            << c.what;
    }
    // A regular file whose read fails (a process's memory at address 0).
    std::filesystem::remove_all(path);
    std::filesystem::create_symlink("/proc/self/mem", path);
    int failed = tavelTestCount(tavelTestLog(), "Applying timezoneconfig failed");
    EXPECT_EQ(lookup(), "<none>");
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "Applying timezoneconfig failed"), failed + 1);
    EXPECT_TRUE(tavelTestLogHas("error", "fgets error "));
    std::filesystem::remove(path);

    const std::string longLine = "9,CET,Paris,\"LONG\",\"" + std::string(10000, 'x') + "\"\n";
    const std::string nulLine = "8,CET,Paris,\"NUL\0\",\"Europe/Paris\"\n"s;
    tavelTestWriteFile(TAVEL_TIMEZONE_MAPPING_FILE, longLine + nulLine + kParisLine);
    EXPECT_EQ(lookup(), kParisLine);
    tavelTestWriteFile(TAVEL_TIMEZONE_MAPPING_FILE, longLine + nulLine);
    EXPECT_EQ(lookup(), "<none>");

    const std::string fits = "7,CET,Paris,\"OK\",\"" + std::string(499 - 19, 'y') + "\"";
    ASSERT_EQ(fits.size(), 499u);
    tavelTestWriteFile(TAVEL_TIMEZONE_MAPPING_FILE, fits);
    EXPECT_EQ(lookup(), fits) << "a 499-character last line without line end";

    for (const char *line :
         {"1,CET,Paris,\"X\"\n", "1,CET,,Paris,\"X\"\n", "1,CET,Paris,\"X\",\n", "CET Paris\n"}) {
        tavelTestWriteFile(TAVEL_TIMEZONE_MAPPING_FILE, line + kParisLine);
        EXPECT_EQ(lookup(), "<none>") << line << " (the first selected line decides)";
    }
    EXPECT_TRUE(
        tavelTestLogHas("error", " No linux timezone to ONT timezone mapping avalieble for CET Paris"));
    EXPECT_EQ(tavelTestCount(tavelTestReadFile("/var/log/history.log"),
                             "event[TZ Config Failed] reason[Timezone mapping failed] Timezone "
                             "Configuration failed from Velka WiFi Cloud, Reason: {reason}\n"),
              4);
}
