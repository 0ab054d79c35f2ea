// The data-model store file and the dml_ stand-in on top of it.
#include <sys/resource.h>

#include "store.h"
#include "test_env.h"

using tavel::dml::Change;
using tavel::dml::UpdateResult;

namespace
{

// Every test starts from a blank device and without the parse of an earlier
// test's store, which a file of the same identity could pass for.
class Dml : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        dml_releaseCache();
    }
    static std::string dir() { return tavelTestPath("/flash/dml"); }
    static std::string storeFile() { return dir() + "/datamodel.conf"; }
    static void writeStore(const std::string &text) { tavelTestWriteFile(kTavelTestStore, text); }
    static std::string readStore() { return tavelTestSlurp(storeFile()); }
    static struct stat storeStat()
    {
        struct stat st {
        };
        EXPECT_EQ(stat(storeFile().c_str(), &st), 0);
        return st;
    }
    static UpdateResult update(const std::vector<Change> &changes)
    {
        std::string error;
        return tavel::dml::update(changes, nullptr, &error);
    }
    static UpdateResult set(const std::string &name, const std::string &v)
    {
        return update({Change{name, v}});
    }
    static tavel::dml::Store loaded()
    {
        tavel::dml::Store store;
        EXPECT_TRUE(store.load(nullptr));
        return store;
    }
    static std::string cachedGet(const std::string &name)
    {
        std::string error;
        tavel::dml::CachedStore store(&error);
        return store.ok() ? store->get(name) : "error: " + error;
    }
    // Rewrites the file in place, keeping its inode, with the given time.
    static void inPlace(const std::string &path, const std::string &text, struct timespec mtime)
    {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
        const struct timespec times[2] = {mtime, mtime};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
};

std::string lines(std::initializer_list<std::string> texts, const char *separator = "\n")
{
    std::string out;
    for (const std::string &text : texts) {
        out += text + separator;
    }
    return out;
}

template <typename T> T filled(unsigned char byte)
{
    T record;
    memset(&record, byte, sizeof(record));
    return record;
}

const auto sameBytes = [](const auto &a, const auto &b) { return memcmp(&a, &b, sizeof(a)) == 0; };

TEST_F(Dml, StoreReadsLinesAndRewritesOnlyWhatChanged)
{
    // A new store holds account passwords and is private; a rewrite keeps the
    // mode the integrator gave it, and the same value spares the flash a write.
    ASSERT_EQ(set("Device.X", "v"), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "Device.X=v\n");
    EXPECT_EQ(storeStat().st_mode & 0777, 0600u);
    writeStore("A=1\n");
    ASSERT_EQ(chmod(storeFile().c_str(), 0640), 0);
    const ino_t before = storeStat().st_ino;
    ASSERT_EQ(set("A", "1"), UpdateResult::Ok);
    EXPECT_EQ(storeStat().st_ino, before);
    ASSERT_EQ(set("A", "2"), UpdateResult::Ok);
    EXPECT_NE(storeStat().st_ino, before);
    EXPECT_EQ(storeStat().st_mode & 07777, 0640u);

    writeStore(lines({"# A=from a comment", "", "A=1", "B==x=y", "no equals sign here", "=orphan value",
                      "bad name=x", "Nul\0Name=x"s, "Bin=va\0lue\xff"s, "A=second", "Empty="}) +
               "Last=tail");
    const tavel::dml::Store store = loaded();
    const struct {
        const char *name;
        bool has;
        std::string value;
    } params[] = {{"A", true, "1"}, // the first line of a name wins
                  {"B", true, "=x=y"}, {"Bin", true, "va\0lue\xff"s}, {"Last", true, "tail"},
                  {"Empty", true, ""}, {"bad name", false, ""},       {"Nul", false, ""},
                  {"", false, ""},     {"Missing", false, ""}};
    for (const auto &p : params) {
        EXPECT_EQ(store.has(p.name), p.has) << p.name;
        EXPECT_EQ(store.get(p.name), p.value) << p.name;
    }
    std::vector<std::string> names;
    for (const tavel::dml::Param &p : store.params()) {
        names.emplace_back(p.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "Bin", "A", "Empty", "Last"}));

    writeStore(lines({"# device defaults", "A=1", "", "garbage line", "B=2", "A=shadowed", "# end"}) + "C=3");
    ASSERT_EQ(update({Change{"B", "two"}, Change{"New", "x\ty"}, Change{"C", "3"}}), UpdateResult::Ok);
    EXPECT_EQ(readStore(), lines({"# device defaults", "A=1", "", "garbage line", "B=two", "A=shadowed",
                                  "# end", "C=3", "New=x\\ty"}));

    ASSERT_EQ(update({Change{"A", "", true}}), UpdateResult::Ok);
    EXPECT_FALSE(loaded().has("A")); // unset removes the shadowed copy as well
    EXPECT_EQ(loaded().get("B"), "two");
    EXPECT_EQ(set("bad name", "x"), UpdateResult::Error);
    EXPECT_EQ(set("#A", "x"), UpdateResult::Error);

    // Control bytes and backslashes stay on one line.
    writeStore("");
    const std::string value = "a\\b\r\nc\td\\n";
    ASSERT_EQ(set("K", value), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "K=a\\\\b\\r\\nc\\td\\\\n\n");
    EXPECT_EQ(loaded().get("K"), value);
    // Unknown escapes keep both bytes, a trailing backslash included.
    EXPECT_EQ(tavel::dml::decodeValue("C:\\dir\\x\\"), "C:\\dir\\x\\");
    EXPECT_EQ(tavel::dml::decodeValue("\\\\n\\n"), "\\n\n");

    // A hundred thousand lines and a megabyte value stay fast.
    std::string text;
    for (int i = 0; i < 100000; ++i) {
        text += "Device.Param" + std::to_string(i) + "=value " + std::to_string(i) + "\n";
    }
    const std::string big(1 << 20, 'x');
    writeStore(text + "Big=" + big + "\n");

    auto start = std::chrono::steady_clock::now();
    tavel::dml::Store large = loaded();
    EXPECT_EQ(large.get("Device.Param99999"), "value 99999");
    EXPECT_EQ(large.get("Big"), big);
    ASSERT_EQ(update({Change{"Device.Param50000", "changed"}, Change{"Added", "1"}}), UpdateResult::Ok);
    ASSERT_TRUE(large.load(nullptr));
    auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(large.get("Device.Param50000"), "changed");
    EXPECT_EQ(large.get("Added"), "1");
    EXPECT_EQ(large.params().size(), 100002u);
    // Linear work stays well below this even in sanitizer builds.
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 2000);
}

TEST_F(Dml, MissingStoreReadsEmptyAndBrokenStoreOrFailedWriteChangesNothing)
{
    auto mgmt = filled<ManagementServerInfo>(0x55);
    ASSERT_EQ(dml_init(0) | dml_getManagementServerInfo(&mgmt), 0);
    EXPECT_STREQ(mgmt.URL, "");
    EXPECT_STREQ(mgmt.Password, "");

    const struct {
        const char *what, *error;
        std::function<void()> make;
    } broken[] = {
        {"a directory at the store", "datamodel.conf: Is a directory",
         [&] { std::filesystem::create_directories(storeFile()); }},
        {"a file where its directory belongs", "datamodel.conf: Not a directory",
         [&] {
             std::filesystem::create_directories(tavelTestPath("/flash"));
             std::ofstream(dir()) << "x";
         }},
        {"larger than the store may grow", "datamodel.conf: File too large",
         [&] {
             writeStore("A=1\n");
             ASSERT_EQ(truncate(storeFile().c_str(), off_t{tavel::dml::kMaxStoreSize + 1}), 0);
         }},
    };
    ASSERT_STREQ(dml_getHIECertifcatePath(), "");
    for (const auto &b : broken) {
        SCOPED_TRACE(b.what);
        std::filesystem::remove_all(tavelTestPath("/flash"));
        b.make();
        std::string error;
        EXPECT_FALSE(tavel::dml::Store().load(&error));
        EXPECT_NE(error.find(b.error), std::string::npos) << error;
        EXPECT_EQ(set("A", "1"), UpdateResult::Error);
        EXPECT_NE(dml_init(0), 0);
        mgmt = filled<ManagementServerInfo>(0x55);
        EXPECT_NE(dml_getManagementServerInfo(&mgmt), 0);
        EXPECT_TRUE(sameBytes(mgmt, filled<ManagementServerInfo>(0x55)));
        EXPECT_NE(dml_setCountryID("DE"), 0);
        EXPECT_STREQ(dml_getHIECertifcatePath(), "");
    }
    if (geteuid() != 0) {
        writeStore("A=1\n");
        ASSERT_EQ(chmod(storeFile().c_str(), 0), 0);
        EXPECT_FALSE(tavel::dml::Store().load(nullptr));
        EXPECT_EQ(set("A", "2"), UpdateResult::Error);
    }

    const std::string old = "# keep me\nA=1\nB=2\n";
    writeStore(old);
    // A file-size limit makes every write past 4 KiB fail as on a full disk.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit;
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = 4096;
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(set("A", std::string(65536, 'y')) == UpdateResult::Error ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the update did not report the failed write";
    EXPECT_EQ(readStore(), old);
    // Nothing but the store and its lock: no temporary file is left behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir()), {}), 2);
}

TEST_F(Dml, ConcurrentWritersAndSettersNeitherTearTheFileNorLoseUpdates)
{
    constexpr int kWriters = 4, kRounds = 40;
    const std::string header = "# header\nSentinel=ok\n", padding(8192, 'p');
    writeStore(header);
    for (int w = 0; w < kWriters; ++w) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            bool ok = true;
            for (int r = 0; r < kRounds; ++r) {
                const std::string n = std::to_string(w), v = std::to_string(r);
                ok = ok && update({Change{"W" + n, v}, Change{"Pad" + n, padding + v}}) == UpdateResult::Ok;
            }
            _exit(ok ? 0 : 1);
        }
    }

    // Meanwhile every snapshot a reader sees must be a whole file.
    int torn = 0, snapshots = 0, failed = 0;
    for (int left = kWriters; left > 0; ++snapshots) {
        tavel::dml::Store store = loaded();
        const std::string &text = store.contents();
        if (text.compare(0, header.size(), header) != 0 || text.back() != '\n' ||
            std::count(text.begin(), text.end(), '\n') != 1 + static_cast<long>(store.params().size())) {
            ++torn;
        }
        for (int status = 0; waitpid(-1, &status, WNOHANG) > 0; --left) {
            failed += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        }
    }
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(torn, 0) << "of " << snapshots << " snapshots";
    const tavel::dml::Store store = loaded();
    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ(store.get("W" + std::to_string(w)), std::to_string(kRounds - 1));
        EXPECT_EQ(store.get("Pad" + std::to_string(w)), padding + std::to_string(kRounds - 1));
    }
    EXPECT_EQ(store.get("Sentinel"), "ok");

    // Threads of one process go through the same lock.
    const std::function<void(const std::string &)> writers[] = {
        [](const std::string &i) { dml_setOnBoardStatus(("status" + i).c_str()); },
        [](const std::string &i) { dml_setTimeZone(("tz" + i).c_str(), "zone"); },
        [](const std::string &i) { dml_setCountryID(i.c_str()); },
        [](const std::string &) {
            SupportedCountryList list;
            dml_getSupportedCountryList(&list);
            dml_getHIECertifcatePath();
        },
    };
    std::vector<std::thread> threads;
    for (const auto &write : writers) {
        threads.emplace_back([&write] {
            for (int i = 0; i < kRounds; ++i) {
                write(std::to_string(i));
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    OnBoardingServerInfo ob{};
    char tz[DML_TIMEZONE_LEN], cc[DML_COUNTRYID_LEN];
    ASSERT_EQ(dml_getOnBoardingServerInfo(&ob) | dml_getTimeZone(tz) | dml_getCountryID(cc), 0);
    EXPECT_EQ(lines({ob.onBoardStatus, tz, cc}, "|"), "status39|tz39|39|");
}

const struct timespec kOld = {1500000000, 100}, kOld1 = {kOld.tv_sec, kOld.tv_nsec + 1};

// Outside writers that keep the size, each changing as little of the identity as it can.
TEST_F(Dml, CachedReadsSeeOutsideWritesAndUpdatesKeepThem)
{
    const std::string path = storeFile();
    const struct {
        const char *what;
        bool oldFile; // the file read first was last changed long ago
        std::function<void()> write;
    } writers[] = {
        {"replaced, other nanoseconds", true,
         [&] {
             inPlace(path + ".new", "A=2\n", kOld1);
             ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
         }},
        {"in place, other nanoseconds", true,
         [&] {
             inPlace(path, "A=2\n", {kOld.tv_sec, kOld.tv_nsec + 2});
         }},
        {"in place, the same time as the read file (within one clock tick)", false,
         [&] {
             struct stat st {
             };
             stat(path.c_str(), &st);
             inPlace(path, "A=2\n", st.st_mtim);
         }},
    };
    for (const auto &w : writers) {
        writeStore("A=1\n");
        if (w.oldFile) {
            inPlace(path, "A=1\n", kOld);
        }
        EXPECT_EQ(cachedGet("A"), "1") << w.what;
        w.write();
        EXPECT_EQ(cachedGet("A"), "2") << w.what;
    }

    writeStore("");
    inPlace(path, "A=1\nB=1\n", kOld);
    EXPECT_EQ(cachedGet("A"), "1");
    // An outside write the parse has not seen survives an update.
    inPlace(path, "A=1\nB=2\n", kOld1);
    ASSERT_EQ(set("C", "3"), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "A=1\nB=2\nC=3\n");
    // The parse the update kept follows its own edits: later lines shift.
    ASSERT_EQ(set("A", "longer"), UpdateResult::Ok);
    EXPECT_EQ(cachedGet("B"), "2");
    EXPECT_EQ(cachedGet("C"), "3");

    // An old file is known by its identity alone: a rewrite keeping all of it shows after a release.
    inPlace(path, "A=longer\nB=7\nC=3\n", kOld);
    EXPECT_EQ(cachedGet("B"), "7");
    inPlace(path, "A=longer\nB=8\nC=3\n", kOld);
    EXPECT_EQ(cachedGet("B"), "7");
    dml_releaseCache();
    EXPECT_EQ(cachedGet("B"), "8");
}

TEST_F(Dml, GettersFillEachRecordAndCountryListParseNumbersAndCutLongTexts)
{
    writeStore(
        lines({"Device.X_TAVEL_Agent.URL=https://ob.example/x",
               "Device.X_TAVEL_Agent.OnBoardStatus=ConnectionSuccess", "Device.X_TAVEL_Agent.OpDesc=op",
               "Device.X_TAVEL_Agent.SubnetDesc=sub", "Device.X_TAVEL_Agent.ACSConnStatus=ACSRetryReq",
               "Device.DeviceInfo.SerialNumber=SN1", "Device.DeviceInfo.X_TAVEL_OperatorID=OP",
               "Device.DeviceInfo.X_TAVEL_Country=DE", "Device.DeviceInfo.X_TAVEL_CACertPath=/etc/ca.pem",
               "Device.DeviceInfo.X_TAVEL_CCSyncRequired=1", "Device.DeviceInfo.X_TAVEL_CountryCode=FR",
               "Device.Time.LocalTimeZone=CET-1CEST", "Device.X_TAVEL_Cloud.L2URL=https://l2",
               "Device.X_TAVEL_Cloud.L2Flags=255", "Device.X_TAVEL_Cloud.RemoteAccessURL=https://ra",
               "Device.X_TAVEL_Cloud.ConfigURL=https://cfg"}));
    // Every record starts filled, so a field a getter leaves alone shows.
    auto ob = filled<OnBoardingServerInfo>(0x55);
    auto mgmt = filled<ManagementServerInfo>(0x55);
    auto node = filled<NodeInfo>(0x5a); // only its three defined texts are the stand-in's
    auto cap = filled<ModelCapability>(0x00);
    auto l1 = filled<KPRCConfigServer>(0x55), l2 = l1;
    auto ra = filled<KPRCRAccessConfig>(0x55);
    auto zc = filled<KPRCZoragentConfig>(0x55);
    char cc[DML_COUNTRYID_LEN], tz[DML_TIMEZONE_LEN];
    ASSERT_EQ(dml_init(0) | dml_getOnBoardingServerInfo(&ob) | dml_getDefaultManagmentInfo(&mgmt) |
                  dml_getCountryID(cc) | dml_getTimeZone(tz) | dml_getNodeInfo(&node) |
                  dml_getModelCapability(&cap) | dml_getKPRCConfigL1Server(&l1) |
                  dml_getKPRCConfigL2Server(&l2) | dml_getKPRCRAccessConfig(&ra) |
                  dml_getKPRCZoragentConfig(&zc),
              0);
    // Enable, URL, key, account and work mode: through the agent's accessors (test_cfgm.cpp).
    EXPECT_EQ(
        lines({ob.onBoardStatus, ob.opDesc, ob.subnetDesc, ob.acsConnStatus, mgmt.Password, cc, tz,
               node.serialNumber, node.operatorId, node.country, l1.URL, l2.URL, ra.URL, zc.configURL,
               zc.apiKey, dml_getHIECertifcatePath()},
              "|"),
        "ConnectionSuccess|op|sub|ACSRetryReq||FR|CET-1CEST|SN1|OP|DE||https://l2|https://ra|https://cfg||"
        "/etc/ca.pem|");
    EXPECT_EQ(ob.URL[sizeof(ob.URL) - 1], 0); // the rest of a field is zeroed
    EXPECT_EQ(node.reserved0[0], 0x5a);
    EXPECT_EQ(node.reserved1[0], 0x5a);
    EXPECT_EQ(cap.isCCSyncRequired, 1);
    EXPECT_EQ(l1.flags, 0);
    EXPECT_EQ(l2.flags, 255);

    writeStore("Device.DeviceInfo.X_TAVEL_SupportedCountries=US,CA;GB, FR ,,DE;;LONGCODE;\n");
    SupportedCountryList list{};
    ASSERT_EQ(dml_getSupportedCountryList(&list), 0);
    ASSERT_EQ(list.groupCount, 3);
    std::vector<std::vector<std::string>> groups;
    for (int g = 0; g < list.groupCount; ++g) {
        groups.emplace_back();
        for (int c = 0; c < list.groups[g].countryCount; ++c) {
            groups.back().emplace_back(list.groups[g].countries[c].code);
        }
    }
    EXPECT_EQ(groups, (std::vector<std::vector<std::string>>{{"US", "CA"}, {"GB", "FR", "DE"}, {"LONG"}}));
    SupportedCountryList again{};
    ASSERT_EQ(dml_getSupportedCountryList(&again), 0);
    EXPECT_EQ(again.groups, list.groups);

    writeStore("Device.DeviceInfo.X_TAVEL_SupportedCountries=\n");
    ASSERT_EQ(dml_getSupportedCountryList(&again), 0);
    EXPECT_EQ(again.groupCount, 0);
    EXPECT_EQ(again.groups, nullptr);

    const std::pair<const char *, int> enables[] = {
        {"1", 1},   {"7", 1},  {"-2", 1}, {"99999999999999999999", 1},
        {"000", 0}, {"", 0},   {"0", 0},  {"yes", 0},
        {"1x", 0},  {" 1", 0}, {"+", 0},  {"0x1", 0},
    };
    for (const auto &[text, expected] : enables) {
        writeStore("Device.X_TAVEL_Agent.Enable="s + text + "\n");
        ASSERT_EQ(dml_getOnBoardingServerInfo(&ob), 0);
        EXPECT_EQ(ob.enable, expected) << "'" << text << "'";
    }
    const std::pair<const char *, int> flags[] = {{"0", 0},  {"1", 1}, {"255", 255}, {"256", 0},
                                                  {"-1", 0}, {"x", 0}, {"", 0},      {"0255", 0}};
    for (const auto &[text, expected] : flags) {
        writeStore("Device.X_TAVEL_Cloud.L1Flags="s + text + "\n");
        ASSERT_EQ(dml_getKPRCConfigL1Server(&l1), 0);
        EXPECT_EQ(l1.flags, expected) << "'" << text << "'";
    }

    const std::string huge(1 << 20, 'u');
    writeStore(lines({"Device.ManagementServer.URL=" + huge, "Device.ManagementServer.Username=user",
                      "Device.X_TAVEL_WiFiService.WorkMode=" + std::string(40, 'm'),
                      "Device.DeviceInfo.X_TAVEL_CountryCode=ABCDEF",
                      "Device.DeviceInfo.SerialNumber=" + std::string(100, 's'),
                      "Device.DeviceInfo.X_TAVEL_CACertPath=" + huge}));
    ASSERT_EQ(dml_getManagementServerInfo(&mgmt), 0);
    EXPECT_EQ(strnlen(mgmt.URL, sizeof(mgmt.URL)), sizeof(mgmt.URL) - 1);
    EXPECT_STREQ(mgmt.Username, "user");

    // Guard bytes around the caller's buffer must survive.
    struct {
        char mode[DML_WORKMODE_LEN];
        char guard[8];
    } buf;
    memset(&buf, '#', sizeof(buf));
    ASSERT_EQ(dml_getWorkMode(buf.mode), 0);
    EXPECT_EQ(std::string(buf.mode), std::string(DML_WORKMODE_LEN - 1, 'm'));
    EXPECT_EQ(std::string(buf.guard, sizeof(buf.guard)), std::string(8, '#'));

    ASSERT_EQ(dml_getCountryID(cc), 0);
    EXPECT_STREQ(cc, "ABC");
    node = filled<NodeInfo>(0x5a);
    ASSERT_EQ(dml_getNodeInfo(&node), 0);
    EXPECT_EQ(std::string(node.serialNumber), std::string(sizeof(node.serialNumber) - 1, 's'));
    EXPECT_EQ(node.reserved1[0], 0x5a);
    EXPECT_EQ(strlen(dml_getHIECertifcatePath()), huge.size()); // no field: handed out whole
}

TEST_F(Dml, SettersChangeOnlyTheirParametersAndAFaultLineFailsItsOperation)
{
    writeStore(lines({"# factory", "Device.X_TAVEL_Agent.OnBoardStatus=NoConnection",
                      "Device.X_TAVEL_Agent.URL=https://ob", "Device.Time.LocalTimeZone=UTC",
                      "Device.X_TAVEL_Agent.OpDesc=old"}));
    ASSERT_EQ(dml_setOnBoardStatus("ConnectionSuccess"), 0);
    ASSERT_EQ(dml_setOpSubnetDesc("op\nx", ""), 0);
    ASSERT_EQ(dml_setCountryID("DE"), 0);
    ASSERT_EQ(dml_setTimeZone("CET-1CEST", "Europe/Berlin"), 0);
    EXPECT_EQ(readStore(),
              lines({"# factory", "Device.X_TAVEL_Agent.OnBoardStatus=ConnectionSuccess",
                     "Device.X_TAVEL_Agent.URL=https://ob", "Device.Time.LocalTimeZone=CET-1CEST",
                     "Device.X_TAVEL_Agent.OpDesc=op\\nx",
                     "Device.X_TAVEL_Agent.SubnetDesc=", "Device.DeviceInfo.X_TAVEL_CountryCode=DE",
                     "Device.Time.X_TAVEL_LocalTimeZoneName=Europe/Berlin"}));
    EXPECT_NE(dml_setOnBoardStatus(nullptr), 0);
    EXPECT_NE(dml_setTimeZone("UTC", nullptr), 0);

    writeStore("");
    ManagementServerInfo info{"https://acs", "user", "pa\ts\\s"};
    ASSERT_EQ(dml_setManagementServerInfo(&info), 0);
    info = ManagementServerInfo{};
    ASSERT_EQ(dml_getManagementServerInfo(&info), 0);
    EXPECT_STREQ(info.Password, "pa\ts\\s");
    ManagementServerInfo empty{};
    ASSERT_EQ(dml_setManagementServerInfo(&empty), 0);
    EXPECT_EQ(readStore(), lines({"Device.ManagementServer.URL=", "Device.ManagementServer.Username=",
                                  "Device.ManagementServer.Password="}));
    // The cloud setters keep a stored field that arrives empty.
    KPRCConfigServer l1{{}, "https://l1", 1};
    ASSERT_EQ(dml_setKPRCConfigL1Server(&l1), 0);
    l1 = KPRCConfigServer{{}, "", 200};
    ASSERT_EQ(dml_setKPRCConfigL1Server(&l1), 0);
    l1 = KPRCConfigServer{};
    ASSERT_EQ(dml_getKPRCConfigL1Server(&l1), 0);
    EXPECT_STREQ(l1.URL, "https://l1");
    EXPECT_EQ(l1.flags, 200);
    KPRCRAccessConfig ra{"https://ra"};
    ASSERT_EQ(dml_setKPRCRAccessConfig(&ra), 0);
    ra = KPRCRAccessConfig{};
    ASSERT_EQ(dml_setKPRCRAccessConfig(&ra), 0);
    ASSERT_EQ(dml_getKPRCRAccessConfig(&ra), 0);
    EXPECT_STREQ(ra.URL, "https://ra");
    // A field filled to its last byte without a NUL is read only up to its end.
    KPRCConfigServer full{};
    memset(full.URL, 'f', sizeof(full.URL));
    ASSERT_EQ(dml_setKPRCConfigL2Server(&full), 0);
    full = KPRCConfigServer{};
    ASSERT_EQ(dml_getKPRCConfigL2Server(&full), 0);
    EXPECT_EQ(strlen(full.URL), sizeof(full.URL) - 1);

    // A fault line fails its operation with the outputs untouched.
    const std::string values = lines(
        {"Device.ManagementServer.URL=https://acs", "Device.X_TAVEL_WiFiService.WorkMode=RGW",
         "Device.DeviceInfo.X_TAVEL_CACertPath=/ca.pem", "Device.DeviceInfo.X_TAVEL_SupportedCountries=US",
         "Device.X_TAVEL_Cloud.ConfigURL=https://cfg"});
    auto mgmt = filled<ManagementServerInfo>(0x55);
    auto ob = filled<OnBoardingServerInfo>(0x55);
    auto node = filled<NodeInfo>(0x55);
    auto zc = filled<KPRCZoragentConfig>(0x55);
    auto list = filled<SupportedCountryList>(0x55);
    char mode[DML_WORKMODE_LEN];
    memset(mode, 0x55, sizeof(mode));
    KPRCZoragentConfig newZc{"https://new", ""};

    const std::vector<std::pair<std::string, std::function<int()>>> operations = {
        {"dml_init", [] { return dml_init(0); }},
        {"dml_getManagementServerInfo", [&] { return dml_getManagementServerInfo(&mgmt); }},
        {"dml_getOnBoardingServerInfo", [&] { return dml_getOnBoardingServerInfo(&ob); }},
        {"dml_getNodeInfo", [&] { return dml_getNodeInfo(&node); }},
        {"dml_getWorkMode", [&] { return dml_getWorkMode(mode); }},
        {"dml_getKPRCZoragentConfig", [&] { return dml_getKPRCZoragentConfig(&zc); }},
        {"dml_getSupportedCountryList", [&] { return dml_getSupportedCountryList(&list); }},
        {"dml_setManagementServerInfo", [&] { return dml_setManagementServerInfo(&empty); }},
        {"dml_setKPRCZoragentConfig", [&] { return dml_setKPRCZoragentConfig(&newZc); }},
        {"dml_setOnBoardStatus", [] { return dml_setOnBoardStatus("x"); }},
    };
    for (const auto &[name, call] : operations) {
        const std::string store = values + "Fault." + name + "=1\n";
        writeStore(store);
        EXPECT_NE(call(), 0) << name;
        EXPECT_EQ(readStore(), store) << name << " wrote despite its fault";
    }
    EXPECT_TRUE(sameBytes(mgmt, filled<ManagementServerInfo>(0x55)));
    EXPECT_TRUE(sameBytes(ob, filled<OnBoardingServerInfo>(0x55)));
    EXPECT_TRUE(sameBytes(node, filled<NodeInfo>(0x55)));
    EXPECT_TRUE(sameBytes(zc, filled<KPRCZoragentConfig>(0x55)));
    const auto untouched = filled<SupportedCountryList>(0x55); // compared by field: padding is not copied
    EXPECT_EQ(list.groupCount, untouched.groupCount);
    EXPECT_EQ(list.groups, untouched.groups);
    EXPECT_EQ(std::string(mode, sizeof(mode)), std::string(sizeof(mode), 0x55));

    // The path of an earlier call is not handed out again.
    writeStore(values);
    ASSERT_STREQ(dml_getHIECertifcatePath(), "/ca.pem");
    writeStore(values + "Fault.dml_getHIECertifcatePath=1\n");
    EXPECT_STREQ(dml_getHIECertifcatePath(), "");

    // A fault names one operation and lasts only while its line stands.
    writeStore(values + "Fault.dml_getWorkMode=1\nFault.dml_getWorkRole=0\n");
    char role[DML_WORKMODE_LEN];
    EXPECT_EQ(dml_getWorkRole(role), 0);
    EXPECT_EQ(dml_getManagementServerInfo(&mgmt), 0);
    writeStore(values);
    ASSERT_EQ(dml_getWorkMode(mode), 0);
    EXPECT_STREQ(mode, "RGW");
}

} // namespace

// A writer stuck with the store's lock fails a write after the bound, or as
// soon as the caller's cancel test says so; once let go, writes go through.
TEST_F(Dml, AWriteGivesUpOnAHeldLockAtTheBoundOrWhenCancelled)
{
    writeStore("A=1\n");
    const std::string lockPath = storeFile() + ".lock";
    FdGuard holder(open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
    static std::atomic<int> polls{0};
    const struct {
        const char *what;
        int (*cancelled)();
        double atLeast, below;
        const char *error;
    } cases[] = {
        {"cancelled", [] { return ++polls > 5 ? 1 : 0; }, 0.0, 2.0, "cancelled"},
        {"bound", nullptr, tavel::dml::kLockWaitMs / 1000.0, tavel::dml::kLockWaitMs / 1000.0 + 2.0,
         "still locked by another after 5000 ms"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        tavel::dml::setWaitCancel(c.cancelled);
        const auto start = std::chrono::steady_clock::now();
        std::string error;
        EXPECT_EQ(tavel::dml::update({Change{"A", "2"}}, nullptr, &error), UpdateResult::Error);
        const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_GE(took, c.atLeast);
        EXPECT_LT(took, c.below);
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    tavel::dml::setWaitCancel(nullptr);
    EXPECT_EQ(readStore(), "A=1\n");
    flock(holder.get(), LOCK_UN);
    EXPECT_EQ(set("A", "3"), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "A=3\n");
}

namespace
{

TEST_F(Dml, InitRemovesOnlyTheTemporaryFilesOfKilledWrites)
{
    writeStore("A=1\n");
    const std::string stale[] = {"datamodel.conf.tmp.AbC123", "datamodel.conf.tmp.zz9ZZ9"};
    const std::string kept[] = {"datamodel.conf.tmp.short", "datamodel.conf.tmp.AbC1234",
                                "other.conf.tmp.AbC123", "datamodel.conf.new"};
    for (const auto &name : stale) {
        std::ofstream(dir() + "/" + name) << "A=half";
    }
    for (const auto &name : kept) {
        std::ofstream(dir() + "/" + name) << "x";
    }
    // Of the right name but not a writer's file: a directory and a link.
    std::filesystem::create_directory(dir() + "/datamodel.conf.tmp.dir123");
    std::filesystem::create_symlink(storeFile(), dir() + "/datamodel.conf.tmp.lnk123");

    // A writer holds the lock: its file may be the one being written.
    {
        FdGuard lock(open((storeFile() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
        EXPECT_EQ(dml_init(0), 0);
        EXPECT_TRUE(std::filesystem::exists(dir() + "/" + stale[0]));
    }
    EXPECT_EQ(dml_init(0), 0);
    for (const auto &name : stale) {
        EXPECT_FALSE(std::filesystem::exists(dir() + "/" + name)) << name;
    }
    for (const auto &name : kept) {
        EXPECT_TRUE(std::filesystem::exists(dir() + "/" + name)) << name;
    }
    EXPECT_TRUE(std::filesystem::is_directory(dir() + "/datamodel.conf.tmp.dir123"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir() + "/datamodel.conf.tmp.lnk123"));
    EXPECT_EQ(readStore(), "A=1\n");
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "notice dml: dml_init: removed 2 temporary file(s) " +
                                                 storeFile() + ".tmp.* of writes that did not finish\n"),
              1);
}

} // namespace
