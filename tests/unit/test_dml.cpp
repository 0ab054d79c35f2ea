#include <string.h>

#include <functional>
#include <thread>

#include "dml.h"
#include "test_env.h"

namespace
{

using DmlRead = TavelRootTest;
using DmlWrite = TavelRootTest;
using DmlFault = TavelRootTest;
using DmlCountryList = TavelRootTest;
using DmlThreads = TavelRootTest;

template <typename T> T filled(unsigned char byte)
{
    T record;
    memset(&record, byte, sizeof(record));
    return record;
}

template <typename T> bool sameBytes(const T &a, const T &b)
{
    return memcmp(&a, &b, sizeof(T)) == 0;
}

TEST_F(DmlRead, FillsEachRecordFromItsParameters)
{
    writeStore("Device.X_TAVEL_Agent.URL=https://ob.example/x\n"
               "Device.X_TAVEL_Agent.OnBoardStatus=ConnectionSuccess\n"
               "Device.X_TAVEL_Agent.OpDesc=op\n"
               "Device.X_TAVEL_Agent.SubnetDesc=sub\n"
               "Device.X_TAVEL_Agent.ACSConnStatus=ACSRetryReq\n"
               "Device.DeviceInfo.SerialNumber=SN1\n"
               "Device.DeviceInfo.X_TAVEL_OperatorID=OP\n"
               "Device.DeviceInfo.X_TAVEL_Country=DE\n"
               "Device.DeviceInfo.X_TAVEL_CACertPath=/etc/ca.pem\n"
               "Device.DeviceInfo.X_TAVEL_CCSyncRequired=1\n"
               "Device.DeviceInfo.X_TAVEL_CountryCode=FR\n"
               "Device.Time.LocalTimeZone=CET-1CEST\n"
               "Device.X_TAVEL_Cloud.L2URL=https://l2\n"
               "Device.X_TAVEL_Cloud.L2Flags=255\n"
               "Device.X_TAVEL_Cloud.RemoteAccessURL=https://ra\n"
               "Device.X_TAVEL_Cloud.ConfigURL=https://cfg\n");
    ASSERT_EQ(dml_init(0), 0);

    // Enable, URL, key, account and work mode are read through the agent's
    // own accessors in test_cfgm.cpp.
    auto ob = filled<OnBoardingServerInfo>(0x55);
    ASSERT_EQ(dml_getOnBoardingServerInfo(&ob), 0);
    EXPECT_STREQ(ob.onBoardStatus, "ConnectionSuccess");
    EXPECT_STREQ(ob.opDesc, "op");
    EXPECT_STREQ(ob.subnetDesc, "sub");
    EXPECT_STREQ(ob.acsConnStatus, "ACSRetryReq");
    EXPECT_EQ(ob.URL[sizeof(ob.URL) - 1], 0); // the rest of a field is zeroed
    auto mgmt = filled<ManagementServerInfo>(0x55);
    ASSERT_EQ(dml_getDefaultManagmentInfo(&mgmt), 0);
    EXPECT_STREQ(mgmt.Password, ""); // absent

    char cc[DML_COUNTRYID_LEN], tz[DML_TIMEZONE_LEN];
    ASSERT_EQ(dml_getCountryID(cc), 0);
    ASSERT_EQ(dml_getTimeZone(tz), 0);
    EXPECT_STREQ(cc, "FR");
    EXPECT_STREQ(tz, "CET-1CEST");

    // Only the three defined texts of the node record are the stand-in's.
    auto node = filled<NodeInfo>(0x5a);
    ASSERT_EQ(dml_getNodeInfo(&node), 0);
    EXPECT_STREQ(node.serialNumber, "SN1");
    EXPECT_STREQ(node.operatorId, "OP");
    EXPECT_STREQ(node.country, "DE");
    EXPECT_EQ(node.reserved0[0], 0x5a);
    EXPECT_EQ(node.reserved1[0], 0x5a);

    auto cap = filled<ModelCapability>(0x00);
    ASSERT_EQ(dml_getModelCapability(&cap), 0);
    EXPECT_EQ(cap.isCCSyncRequired, 1);
    EXPECT_STREQ(dml_getHIECertifcatePath(), "/etc/ca.pem");

    KPRCConfigServer l1 = filled<KPRCConfigServer>(0x55), l2 = l1;
    ASSERT_EQ(dml_getKPRCConfigL1Server(&l1), 0);
    ASSERT_EQ(dml_getKPRCConfigL2Server(&l2), 0);
    EXPECT_STREQ(l1.URL, "");
    EXPECT_EQ(l1.flags, 0);
    EXPECT_STREQ(l2.URL, "https://l2");
    EXPECT_EQ(l2.flags, 255);
    auto ra = filled<KPRCRAccessConfig>(0x55);
    ASSERT_EQ(dml_getKPRCRAccessConfig(&ra), 0);
    EXPECT_STREQ(ra.URL, "https://ra");
    auto zc = filled<KPRCZoragentConfig>(0x55);
    ASSERT_EQ(dml_getKPRCZoragentConfig(&zc), 0);
    EXPECT_STREQ(zc.configURL, "https://cfg");
    EXPECT_STREQ(zc.apiKey, "");
}

TEST_F(DmlRead, EnableNeedsANonZeroDecimalAndFlagsAByte)
{
    const std::pair<const char *, int> enables[] = {
        {"1", 1},   {"7", 1},  {"-2", 1}, {"99999999999999999999", 1},
        {"000", 0}, {"", 0},   {"0", 0},  {"yes", 0},
        {"1x", 0},  {" 1", 0}, {"+", 0},  {"0x1", 0},
    };
    for (const auto &[text, expected] : enables) {
        writeStore(std::string("Device.X_TAVEL_Agent.Enable=") + text + "\n");
        OnBoardingServerInfo ob{};
        ASSERT_EQ(dml_getOnBoardingServerInfo(&ob), 0);
        EXPECT_EQ(ob.enable, expected) << "'" << text << "'";
    }
    const std::pair<const char *, int> flags[] = {{"0", 0},  {"1", 1}, {"255", 255}, {"256", 0},
                                                  {"-1", 0}, {"x", 0}, {"", 0},      {"0255", 0}};
    for (const auto &[text, expected] : flags) {
        writeStore(std::string("Device.X_TAVEL_Cloud.L1Flags=") + text + "\n");
        KPRCConfigServer cfg{};
        ASSERT_EQ(dml_getKPRCConfigL1Server(&cfg), 0);
        EXPECT_EQ(cfg.flags, expected) << "'" << text << "'";
    }
}

TEST_F(DmlRead, LongTextsAreCutToTheirFields)
{
    const std::string huge(1 << 20, 'u');
    writeStore("Device.ManagementServer.URL=" + huge + "\n" + "Device.ManagementServer.Username=user\n" +
               "Device.X_TAVEL_WiFiService.WorkMode=" + std::string(40, 'm') + "\n" +
               "Device.DeviceInfo.X_TAVEL_CountryCode=ABCDEF\n" + "Device.DeviceInfo.SerialNumber=" +
               std::string(100, 's') + "\n" + "Device.DeviceInfo.X_TAVEL_CACertPath=" + huge + "\n");

    ManagementServerInfo mgmt{};
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

    char cc[DML_COUNTRYID_LEN];
    ASSERT_EQ(dml_getCountryID(cc), 0);
    EXPECT_STREQ(cc, "ABC");

    auto node = filled<NodeInfo>(0x5a);
    ASSERT_EQ(dml_getNodeInfo(&node), 0);
    EXPECT_EQ(std::string(node.serialNumber), std::string(sizeof(node.serialNumber) - 1, 's'));
    EXPECT_EQ(node.reserved1[0], 0x5a);

    EXPECT_EQ(strlen(dml_getHIECertifcatePath()), huge.size()); // no field: handed out whole
}

TEST_F(DmlRead, MissingStoreGivesEmptyValuesAndUnreadableStoreFails)
{
    ASSERT_EQ(dml_init(0), 0);
    auto mgmt = filled<ManagementServerInfo>(0x55);
    ASSERT_EQ(dml_getManagementServerInfo(&mgmt), 0);
    EXPECT_STREQ(mgmt.URL, "");
    EXPECT_STREQ(mgmt.Password, "");

    ASSERT_EQ(mkdir((root_ + "/flash").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir().c_str(), 0755), 0);
    ASSERT_EQ(mkdir(storeFile().c_str(), 0755), 0);
    EXPECT_NE(dml_init(0), 0);
    mgmt = filled<ManagementServerInfo>(0x55);
    EXPECT_NE(dml_getManagementServerInfo(&mgmt), 0);
    EXPECT_TRUE(sameBytes(mgmt, filled<ManagementServerInfo>(0x55)));
    EXPECT_NE(dml_setCountryID("DE"), 0);
    const char *path = dml_getHIECertifcatePath();
    ASSERT_NE(path, nullptr);
    EXPECT_STREQ(path, "");
}

TEST_F(DmlWrite, CloudSettersKeepFieldsThatArriveEmpty)
{
    KPRCZoragentConfig zc{};
    strcpy(zc.configURL, "https://cfg");
    ASSERT_EQ(dml_setKPRCZoragentConfig(&zc), 0);
    zc = KPRCZoragentConfig{};
    strcpy(zc.apiKey, "secret");
    ASSERT_EQ(dml_setKPRCZoragentConfig(&zc), 0);
    zc = KPRCZoragentConfig{};
    ASSERT_EQ(dml_getKPRCZoragentConfig(&zc), 0);
    EXPECT_STREQ(zc.configURL, "https://cfg");
    EXPECT_STREQ(zc.apiKey, "secret");

    KPRCConfigServer l1{};
    strcpy(l1.URL, "https://l1");
    l1.flags = 1;
    ASSERT_EQ(dml_setKPRCConfigL1Server(&l1), 0);
    l1 = KPRCConfigServer{};
    l1.flags = 200;
    ASSERT_EQ(dml_setKPRCConfigL1Server(&l1), 0);
    l1 = KPRCConfigServer{};
    ASSERT_EQ(dml_getKPRCConfigL1Server(&l1), 0);
    EXPECT_STREQ(l1.URL, "https://l1");
    EXPECT_EQ(l1.flags, 200);

    KPRCRAccessConfig ra{};
    strcpy(ra.URL, "https://ra");
    ASSERT_EQ(dml_setKPRCRAccessConfig(&ra), 0);
    ra = KPRCRAccessConfig{};
    ASSERT_EQ(dml_setKPRCRAccessConfig(&ra), 0);
    ASSERT_EQ(dml_getKPRCRAccessConfig(&ra), 0);
    EXPECT_STREQ(ra.URL, "https://ra");

    // A field filled to its last byte without a NUL is read only up to its end.
    KPRCConfigServer full{};
    memset(full.URL, 'f', sizeof(full.URL));
    full.flags = 0;
    ASSERT_EQ(dml_setKPRCConfigL2Server(&full), 0);
    full = KPRCConfigServer{};
    ASSERT_EQ(dml_getKPRCConfigL2Server(&full), 0);
    EXPECT_EQ(strlen(full.URL), sizeof(full.URL) - 1);
}

TEST_F(DmlWrite, ManagementSetterStoresEmptyFields)
{
    ManagementServerInfo info{};
    strcpy(info.URL, "https://acs");
    strcpy(info.Username, "user");
    strcpy(info.Password, "pa\ts\\s");
    ASSERT_EQ(dml_setManagementServerInfo(&info), 0);
    info = ManagementServerInfo{};
    ASSERT_EQ(dml_getManagementServerInfo(&info), 0);
    EXPECT_STREQ(info.Password, "pa\ts\\s");

    ManagementServerInfo empty{};
    ASSERT_EQ(dml_setManagementServerInfo(&empty), 0);
    EXPECT_EQ(readStore(), "Device.ManagementServer.URL=\n"
                           "Device.ManagementServer.Username=\n"
                           "Device.ManagementServer.Password=\n");
}

TEST_F(DmlWrite, SmallSettersChangeOnlyTheirParameters)
{
    writeStore("# factory\n"
               "Device.X_TAVEL_Agent.OnBoardStatus=NoConnection\n"
               "Device.X_TAVEL_Agent.URL=https://ob\n"
               "Device.Time.LocalTimeZone=UTC\n"
               "Device.X_TAVEL_Agent.OpDesc=old\n");
    ASSERT_EQ(dml_setOnBoardStatus("ConnectionSuccess"), 0);
    ASSERT_EQ(dml_setOpSubnetDesc("op\nx", ""), 0);
    ASSERT_EQ(dml_setCountryID("DE"), 0);
    ASSERT_EQ(dml_setTimeZone("CET-1CEST", "Europe/Berlin"), 0);
    EXPECT_EQ(readStore(), "# factory\n"
                           "Device.X_TAVEL_Agent.OnBoardStatus=ConnectionSuccess\n"
                           "Device.X_TAVEL_Agent.URL=https://ob\n"
                           "Device.Time.LocalTimeZone=CET-1CEST\n"
                           "Device.X_TAVEL_Agent.OpDesc=op\\nx\n"
                           "Device.X_TAVEL_Agent.SubnetDesc=\n"
                           "Device.DeviceInfo.X_TAVEL_CountryCode=DE\n"
                           "Device.Time.X_TAVEL_LocalTimeZoneName=Europe/Berlin\n");
    EXPECT_NE(dml_setOnBoardStatus(nullptr), 0);
    EXPECT_NE(dml_setTimeZone("UTC", nullptr), 0);
}

TEST_F(DmlFault, FaultLineFailsTheOperationWithOutputsUntouched)
{
    const std::string values = "Device.ManagementServer.URL=https://acs\n"
                               "Device.X_TAVEL_WiFiService.WorkMode=RGW\n"
                               "Device.DeviceInfo.X_TAVEL_CACertPath=/ca.pem\n"
                               "Device.DeviceInfo.X_TAVEL_SupportedCountries=US\n"
                               "Device.X_TAVEL_Cloud.ConfigURL=https://cfg\n";
    auto mgmt = filled<ManagementServerInfo>(0x55);
    auto ob = filled<OnBoardingServerInfo>(0x55);
    auto node = filled<NodeInfo>(0x55);
    auto zc = filled<KPRCZoragentConfig>(0x55);
    auto list = filled<SupportedCountryList>(0x55);
    char mode[DML_WORKMODE_LEN];
    memset(mode, 0x55, sizeof(mode));
    ManagementServerInfo newMgmt{};
    KPRCZoragentConfig newZc{};
    strcpy(newZc.configURL, "https://new");

    const std::vector<std::pair<std::string, std::function<int()>>> operations = {
        {"dml_init", [] { return dml_init(0); }},
        {"dml_getManagementServerInfo", [&] { return dml_getManagementServerInfo(&mgmt); }},
        {"dml_getOnBoardingServerInfo", [&] { return dml_getOnBoardingServerInfo(&ob); }},
        {"dml_getNodeInfo", [&] { return dml_getNodeInfo(&node); }},
        {"dml_getWorkMode", [&] { return dml_getWorkMode(mode); }},
        {"dml_getKPRCZoragentConfig", [&] { return dml_getKPRCZoragentConfig(&zc); }},
        {"dml_getSupportedCountryList", [&] { return dml_getSupportedCountryList(&list); }},
        {"dml_setManagementServerInfo", [&] { return dml_setManagementServerInfo(&newMgmt); }},
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

    writeStore(values + "Fault.dml_getHIECertifcatePath=1\n");
    const char *path = dml_getHIECertifcatePath();
    ASSERT_NE(path, nullptr);
    EXPECT_STREQ(path, "");

    // A fault names one operation and lasts only while its line stands.
    writeStore(values + "Fault.dml_getWorkMode=1\nFault.dml_getWorkRole=0\n");
    char role[DML_WORKMODE_LEN];
    EXPECT_EQ(dml_getWorkRole(role), 0);
    EXPECT_EQ(dml_getManagementServerInfo(&mgmt), 0);
    writeStore(values);
    ASSERT_EQ(dml_getWorkMode(mode), 0);
    EXPECT_STREQ(mode, "RGW");
}

TEST_F(DmlCountryList, ParsesGroupsAndKeepsTheArraysWhileUnchanged)
{
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
}

TEST_F(DmlThreads, ConcurrentSettersLoseNoUpdate)
{
    constexpr int kRounds = 25;
    std::vector<std::thread> threads;
    threads.emplace_back([] {
        for (int i = 0; i < kRounds; ++i) {
            dml_setOnBoardStatus(("status" + std::to_string(i)).c_str());
        }
    });
    threads.emplace_back([] {
        for (int i = 0; i < kRounds; ++i) {
            dml_setTimeZone(("tz" + std::to_string(i)).c_str(), "zone");
        }
    });
    threads.emplace_back([] {
        for (int i = 0; i < kRounds; ++i) {
            dml_setCountryID(std::to_string(i).c_str());
        }
    });
    threads.emplace_back([] {
        for (int i = 0; i < kRounds; ++i) {
            SupportedCountryList list;
            dml_getSupportedCountryList(&list);
            dml_getHIECertifcatePath();
        }
    });
    for (std::thread &t : threads) {
        t.join();
    }
    OnBoardingServerInfo ob{};
    ASSERT_EQ(dml_getOnBoardingServerInfo(&ob), 0);
    EXPECT_STREQ(ob.onBoardStatus, "status24");
    char tz[DML_TIMEZONE_LEN], cc[DML_COUNTRYID_LEN];
    ASSERT_EQ(dml_getTimeZone(tz), 0);
    ASSERT_EQ(dml_getCountryID(cc), 0);
    EXPECT_STREQ(tz, "tz24");
    EXPECT_STREQ(cc, "24");
}

} // namespace
