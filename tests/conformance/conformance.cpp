// tavel-conformance: checks a platform layer (dml.h, hbus.h, platform_log.h)
// against the contracts written in those headers.  Built against whichever
// platform the agent's build uses; an integrator runs it on a device whose
// data model may be overwritten, with the agent stopped (it owns the bus
// name).
//
// Environment:
//   TAVEL_CONFORMANCE_FRESH=1    the data model starts empty: absent
//                                parameters are checked too
//   TAVEL_CONFORMANCE_LOG=FILE   where the platform log lands (default
//                                $TAVEL_ROOT/var/log/tavel.log)
//   TAVEL_CONFORMANCE_HISTORY=FILE  the same for history events
//   TAVEL_CONFORMANCE_BUS_NAME   the name to own (default velka.tavel)
//   TAVEL_CONFORMANCE_CALL       a command that calls the method (below)
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dml.h"
#include "hbus.h"
#include "platform_log.h"
#include "tavel_bus.h"

extern char **environ;

// The records are exchanged with the platform byte for byte.
static_assert(sizeof(ManagementServerInfo) == 1537, "ManagementServerInfo");
static_assert(sizeof(OnBoardingServerInfo) == 2215, "OnBoardingServerInfo");
static_assert(sizeof(NodeInfo) == 552, "NodeInfo");
static_assert(sizeof(ModelCapability) == 68, "ModelCapability");
static_assert(sizeof(CountryEntry) == 69, "CountryEntry");
static_assert(sizeof(KPRCConfigServer) == 1793, "KPRCConfigServer");
static_assert(sizeof(KPRCRAccessConfig) == 1024 && sizeof(KPRCZoragentConfig) == 2048, "cloud records");
static_assert(sizeof(void *) != 4 || sizeof(hbusSignalEntry) == 136, "hbusSignalEntry");

namespace
{

template <size_t N> std::string text(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}
template <size_t N> void put(char (&field)[N], const std::string &v)
{
    memset(field, 0, N);
    memcpy(field, v.data(), std::min(v.size(), N - 1));
}

std::string env(const char *name)
{
    const char *v = getenv(name);
    return v != nullptr ? v : "";
}

// A value of n bytes with the bytes a store is most likely to mangle.
std::string awkward(size_t n, char seed)
{
    static const std::string kBytes = "a=\\\r\n\t#\xc3\xa9 ;,'\"%s";
    std::string v;
    for (size_t i = 0; v.size() < n; ++i) {
        v += (i % 3 == 0) ? kBytes[i % kBytes.size()] : static_cast<char>(seed + i % 26);
    }
    return v;
}

// One text parameter: how to write it and read it back, and its field size.
struct TextParam {
    const char *name;
    size_t size;
    std::function<int(const std::string &)> set;
    std::function<int(std::string *)> get;
};

std::vector<TextParam> textParams()
{
    auto mgmt = [](std::function<void(ManagementServerInfo &, const std::string &)> fill,
                   std::function<std::string(const ManagementServerInfo &)> pick) {
        return std::make_pair(
            [fill](const std::string &v) {
                ManagementServerInfo info;
                if (dml_getManagementServerInfo(&info) != 0) {
                    return -1;
                }
                fill(info, v);
                return dml_setManagementServerInfo(&info);
            },
            [pick](std::string *out) {
                ManagementServerInfo info;
                int rc = dml_getManagementServerInfo(&info);
                *out = pick(info);
                return rc;
            });
    };
    auto agent = [](std::function<std::string(const OnBoardingServerInfo &)> pick) {
        return [pick](std::string *out) {
            OnBoardingServerInfo info;
            int rc = dml_getOnBoardingServerInfo(&info);
            *out = pick(info);
            return rc;
        };
    };
    auto url = mgmt([](ManagementServerInfo &i, const std::string &v) { put(i.URL, v); },
                    [](const ManagementServerInfo &i) { return text(i.URL); });
    auto user = mgmt([](ManagementServerInfo &i, const std::string &v) { put(i.Username, v); },
                     [](const ManagementServerInfo &i) { return text(i.Username); });
    auto pass = mgmt([](ManagementServerInfo &i, const std::string &v) { put(i.Password, v); },
                     [](const ManagementServerInfo &i) { return text(i.Password); });
    auto server = [](int (*set)(const KPRCConfigServer *), int (*get)(KPRCConfigServer *)) {
        return std::make_pair(
            [set](const std::string &v) {
                KPRCConfigServer c{};
                put(c.URL, v);
                return set(&c);
            },
            [get](std::string *out) {
                KPRCConfigServer c{};
                int rc = get(&c);
                *out = text(c.URL);
                return rc;
            });
    };
    auto l1 = server(dml_setKPRCConfigL1Server, dml_getKPRCConfigL1Server);
    auto l2 = server(dml_setKPRCConfigL2Server, dml_getKPRCConfigL2Server);
    return {
        {"management URL", sizeof(ManagementServerInfo::URL), url.first, url.second},
        {"management Username", sizeof(ManagementServerInfo::Username), user.first, user.second},
        {"management Password", sizeof(ManagementServerInfo::Password), pass.first, pass.second},
        {"onBoardStatus", DML_ONBOARDSTATUS_LEN,
         [](const std::string &v) { return dml_setOnBoardStatus(v.c_str()); },
         agent([](const OnBoardingServerInfo &i) { return text(i.onBoardStatus); })},
        {"opDesc", DML_DESC_LEN,
         [](const std::string &v) {
             OnBoardingServerInfo i;
             return dml_getOnBoardingServerInfo(&i) | dml_setOpSubnetDesc(v.c_str(), i.subnetDesc);
         },
         agent([](const OnBoardingServerInfo &i) { return text(i.opDesc); })},
        {"subnetDesc", DML_DESC_LEN,
         [](const std::string &v) {
             OnBoardingServerInfo i;
             return dml_getOnBoardingServerInfo(&i) | dml_setOpSubnetDesc(i.opDesc, v.c_str());
         },
         agent([](const OnBoardingServerInfo &i) { return text(i.subnetDesc); })},
        {"country code", DML_COUNTRYID_LEN, [](const std::string &v) { return dml_setCountryID(v.c_str()); },
         [](std::string *out) {
             char code[DML_COUNTRYID_LEN];
             int rc = dml_getCountryID(code);
             *out = text(code);
             return rc;
         }},
        {"time zone", DML_TIMEZONE_LEN,
         [](const std::string &v) { return dml_setTimeZone(v.c_str(), "Zone/Name"); },
         [](std::string *out) {
             char tz[DML_TIMEZONE_LEN];
             int rc = dml_getTimeZone(tz);
             *out = text(tz);
             return rc;
         }},
        {"cloud L1 URL", sizeof(KPRCConfigServer::URL), l1.first, l1.second},
        {"cloud L2 URL", sizeof(KPRCConfigServer::URL), l2.first, l2.second},
        {"remote-access URL", sizeof(KPRCRAccessConfig::URL),
         [](const std::string &v) {
             KPRCRAccessConfig c{};
             put(c.URL, v);
             return dml_setKPRCRAccessConfig(&c);
         },
         [](std::string *out) {
             KPRCRAccessConfig c{};
             int rc = dml_getKPRCRAccessConfig(&c);
             *out = text(c.URL);
             return rc;
         }},
        {"cloud config API key", sizeof(KPRCZoragentConfig::apiKey),
         [](const std::string &v) {
             KPRCZoragentConfig c{};
             put(c.apiKey, v);
             return dml_setKPRCZoragentConfig(&c);
         },
         [](std::string *out) {
             KPRCZoragentConfig c{};
             int rc = dml_getKPRCZoragentConfig(&c);
             *out = text(c.apiKey);
             return rc;
         }},
    };
}

class Dml : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { ASSERT_EQ(dml_init(2), 0); }
};

TEST_F(Dml, AbsentParametersReadEmptyWithSuccess)
{
    if (env("TAVEL_CONFORMANCE_FRESH") != "1") {
        GTEST_SKIP() << "needs an empty data model (TAVEL_CONFORMANCE_FRESH=1)";
    }
    for (const TextParam &p : textParams()) {
        std::string v = "stale";
        EXPECT_EQ(p.get(&v), 0) << p.name;
        EXPECT_EQ(v, "") << p.name;
    }
    OnBoardingServerInfo agent;
    memset(&agent, 0x5a, sizeof(agent));
    ASSERT_EQ(dml_getOnBoardingServerInfo(&agent), 0);
    EXPECT_EQ(agent.enable, 0);
    SupportedCountryList list{7, nullptr};
    ASSERT_EQ(dml_getSupportedCountryList(&list), 0);
    EXPECT_EQ(list.groupCount, 0);
    const char *ca = dml_getHIECertifcatePath();
    ASSERT_NE(ca, nullptr);
    EXPECT_STREQ(ca, "");
}

// A value written is read back whole (every byte, to the last one the field
// holds), a longer one is cut to the field and still terminated.
TEST_F(Dml, WrittenValuesReadBackWhole)
{
    char seed = 'a';
    for (const TextParam &p : textParams()) {
        for (size_t len : {size_t{1}, p.size - 1, p.size + 40}) {
            std::string want = awkward(len, seed++);
            ASSERT_EQ(p.set(want), 0) << p.name << ", " << len << " bytes";
            std::string got;
            ASSERT_EQ(p.get(&got), 0) << p.name;
            want.resize(std::min(want.size(), p.size - 1));
            EXPECT_TRUE(got == want) << p.name << ": " << got.size() << " of " << want.size() << " bytes back"
                                     << (got.size() == want.size() ? ", other bytes" : "");
        }
    }
}

// The management setter stores empty fields; the cloud setters keep a field
// that arrives empty, and the flags byte whole.
TEST_F(Dml, EmptyFieldsFollowEachSettersRule)
{
    ManagementServerInfo acct{};
    put(acct.URL, "https://acs.example/cwmp");
    put(acct.Username, "user");
    put(acct.Password, "secret");
    ASSERT_EQ(dml_setManagementServerInfo(&acct), 0);
    ManagementServerInfo empty{};
    ASSERT_EQ(dml_setManagementServerInfo(&empty), 0);
    ASSERT_EQ(dml_getManagementServerInfo(&acct), 0);
    EXPECT_EQ(text(acct.URL) + text(acct.Username) + text(acct.Password), "");

    KPRCZoragentConfig cfg{};
    put(cfg.configURL, "https://config.example/");
    put(cfg.apiKey, "key-1");
    ASSERT_EQ(dml_setKPRCZoragentConfig(&cfg), 0);
    KPRCZoragentConfig urlOnly{};
    put(urlOnly.configURL, "https://config2.example/");
    ASSERT_EQ(dml_setKPRCZoragentConfig(&urlOnly), 0);
    ASSERT_EQ(dml_getKPRCZoragentConfig(&cfg), 0);
    EXPECT_EQ(text(cfg.configURL), "https://config2.example/");
    EXPECT_EQ(text(cfg.apiKey), "key-1");

    for (uint8_t flags : {uint8_t{0}, uint8_t{1}, uint8_t{128}, uint8_t{255}}) {
        KPRCConfigServer srv{};
        put(srv.URL, "https://l2.example/");
        srv.flags = flags;
        ASSERT_EQ(dml_setKPRCConfigL2Server(&srv), 0);
        KPRCConfigServer back{};
        back.flags = static_cast<uint8_t>(~flags);
        ASSERT_EQ(dml_getKPRCConfigL2Server(&back), 0);
        EXPECT_EQ(back.flags, flags);
        EXPECT_EQ(text(back.URL), "https://l2.example/");
    }
}

// NULL arguments are errors, never crashes; an output is never half-written.
TEST_F(Dml, NullArgumentsAreErrors)
{
    const std::vector<std::pair<const char *, std::function<int()>>> calls = {
        {"getModelCapability", [] { return dml_getModelCapability(nullptr); }},
        {"getSupportedCountryList", [] { return dml_getSupportedCountryList(nullptr); }},
        {"getManagementServerInfo", [] { return dml_getManagementServerInfo(nullptr); }},
        {"setManagementServerInfo", [] { return dml_setManagementServerInfo(nullptr); }},
        {"getDefaultManagmentInfo", [] { return dml_getDefaultManagmentInfo(nullptr); }},
        {"getOnBoardingServerInfo", [] { return dml_getOnBoardingServerInfo(nullptr); }},
        {"setOnBoardStatus", [] { return dml_setOnBoardStatus(nullptr); }},
        {"setOpSubnetDesc", [] { return dml_setOpSubnetDesc(nullptr, nullptr); }},
        {"getWorkMode", [] { return dml_getWorkMode(nullptr); }},
        {"getWorkRole", [] { return dml_getWorkRole(nullptr); }},
        {"getNodeInfo", [] { return dml_getNodeInfo(nullptr); }},
        {"getCountryID", [] { return dml_getCountryID(nullptr); }},
        {"setCountryID", [] { return dml_setCountryID(nullptr); }},
        {"getTimeZone", [] { return dml_getTimeZone(nullptr); }},
        {"setTimeZone", [] { return dml_setTimeZone(nullptr, nullptr); }},
        {"getKPRCConfigL1Server", [] { return dml_getKPRCConfigL1Server(nullptr); }},
        {"setKPRCConfigL1Server", [] { return dml_setKPRCConfigL1Server(nullptr); }},
        {"getKPRCConfigL2Server", [] { return dml_getKPRCConfigL2Server(nullptr); }},
        {"setKPRCConfigL2Server", [] { return dml_setKPRCConfigL2Server(nullptr); }},
        {"getKPRCRAccessConfig", [] { return dml_getKPRCRAccessConfig(nullptr); }},
        {"setKPRCRAccessConfig", [] { return dml_setKPRCRAccessConfig(nullptr); }},
        {"getKPRCZoragentConfig", [] { return dml_getKPRCZoragentConfig(nullptr); }},
        {"setKPRCZoragentConfig", [] { return dml_setKPRCZoragentConfig(nullptr); }},
    };
    for (const auto &c : calls) {
        EXPECT_NE(c.second(), 0) << c.first;
    }
}

// The read-only records: fields terminated, flags 0 or 1, the bytes the
// operation does not own left as they were, the country arrays sound.
TEST_F(Dml, ReadOnlyRecordsAreSound)
{
    ModelCapability cap;
    memset(&cap, 0xa5, sizeof(cap));
    ASSERT_EQ(dml_getModelCapability(&cap), 0);
    EXPECT_LE(cap.isCCSyncRequired, 1);
    EXPECT_EQ(cap.reserved[0], 0xa5);
    EXPECT_EQ(cap.reserved1, 0xa5);

    NodeInfo node;
    memset(&node, 'x', sizeof(node));
    ASSERT_EQ(dml_getNodeInfo(&node), 0);
    EXPECT_LT(strnlen(node.serialNumber, sizeof(node.serialNumber)), sizeof(node.serialNumber));
    EXPECT_LT(strnlen(node.operatorId, sizeof(node.operatorId)), sizeof(node.operatorId));
    EXPECT_LT(strnlen(node.country, sizeof(node.country)), sizeof(node.country));

    char mode[DML_WORKMODE_LEN], role[DML_WORKMODE_LEN];
    memset(mode, 'x', sizeof(mode));
    memset(role, 'x', sizeof(role));
    ASSERT_EQ(dml_getWorkMode(mode), 0);
    ASSERT_EQ(dml_getWorkRole(role), 0);
    EXPECT_LT(strnlen(mode, sizeof(mode)), sizeof(mode));
    EXPECT_LT(strnlen(role, sizeof(role)), sizeof(role));

    ManagementServerInfo backup;
    memset(&backup, 'x', sizeof(backup));
    ASSERT_EQ(dml_getDefaultManagmentInfo(&backup), 0);
    EXPECT_LT(strnlen(backup.Password, sizeof(backup.Password)), sizeof(backup.Password));

    SupportedCountryList list{-1, nullptr};
    ASSERT_EQ(dml_getSupportedCountryList(&list), 0);
    ASSERT_GE(list.groupCount, 0);
    ASSERT_TRUE(list.groupCount == 0 || list.groups != nullptr);
    for (int g = 0; g < list.groupCount; ++g) {
        ASSERT_GE(list.groups[g].countryCount, 0);
        for (int c = 0; c < list.groups[g].countryCount; ++c) {
            EXPECT_LT(strnlen(list.groups[g].countries[c].code, 5), 5u);
        }
    }
}

// Another process's write is seen by the next read here: the data model is
// the device's, not the process's.  (No other thread runs yet: fork is safe.)
TEST_F(Dml, WritesSurviveTheProcess)
{
    const std::string password = "pw-" + std::to_string(getpid());
    ManagementServerInfo info;
    ASSERT_EQ(dml_getManagementServerInfo(&info), 0); // whatever a cache holds now
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        put(info.Password, password);
        _exit(dml_setManagementServerInfo(&info) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writing process failed";
    ASSERT_EQ(dml_getManagementServerInfo(&info), 0);
    EXPECT_EQ(text(info.Password), password);
}

// Two threads writing and reading at once: every call succeeds and every
// value read is one that was written whole.
TEST_F(Dml, TwoThreadsAtOnce)
{
    std::atomic<int> failures{0}, torn{0};
    auto worker = [&](int id) {
        for (int i = 0; i < 150; ++i) {
            std::string code = id == 0 ? (i % 2 ? "AAA" : "BBB") : (i % 2 ? "CCC" : "DDD");
            char got[DML_COUNTRYID_LEN];
            failures += dml_setCountryID(code.c_str()) != 0;
            failures += dml_getCountryID(got) != 0;
            std::string g = text(got);
            torn += g.size() != 3 || g[0] != g[1] || g[1] != g[2];
            const char *ca = dml_getHIECertifcatePath();
            failures += ca == nullptr;
            if (dml_releaseCache != nullptr && i % 10 == 0) {
                dml_releaseCache();
            }
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(torn.load(), 0);
}

// ---- bus ----

struct Received {
    std::mutex mutex;
    std::condition_variable cv;
    std::map<std::string, std::vector<std::string>> payloads; // by member
};
Received g_received;
const char *const kMembers[] = {TAVEL_SIG_SET_LOG_LEVEL, TAVEL_SIG_SET_LOG_DESTINATION,
                                TAVEL_SIG_DBG_CMD,       TAVEL_SIG_BOOTSTRAP,
                                TAVEL_SIG_SYNC_MGR,      TAVEL_SIG_NTP_TIMEZONE};

template <int Row> void onSignal(void *, void *, const void *payload, uint32_t len)
{
    std::lock_guard<std::mutex> lock(g_received.mutex);
    g_received.payloads[kMembers[Row]].emplace_back(
        payload != nullptr ? static_cast<const char *>(payload) : "", payload != nullptr ? len : 0);
    g_received.cv.notify_all();
}

const hbusSignalHandler kHandlers[] = {onSignal<0>, onSignal<1>, onSignal<2>,
                                       onSignal<3>, onSignal<4>, onSignal<5>};

std::string rule(const char *member)
{
    return std::string("type='signal',member='") + member + "'";
}

// The method the conformance service answers: its argument plus one.
std::atomic<int> g_calls{0};
std::string g_methodName;
void dispatch(hbusService *svc, hbusMessage *msg, hbusMessage *reply, uint8_t *handled)
{
    int32_t arg = 0;
    *handled = 0;
    if (hbusIsMethodCall(msg, svc->busName, TAVEL_BUS_METHOD) && hbusReadParcelInt32(msg, &arg) == 0 &&
        hbusWriteParcelUint32(reply, static_cast<uint32_t>(arg) + 1) == 0) {
        g_methodName = hbusGetMethodName(msg);
        *handled = 1;
        ++g_calls;
    }
}
hbusService g_service = {"velka.tavel", dispatch, nullptr};

class Bus : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        static std::string name =
            env("TAVEL_CONFORMANCE_BUS_NAME").empty() ? TAVEL_BUS_NAME : env("TAVEL_CONFORMANCE_BUS_NAME");
        g_service.busName = name.c_str();
        ASSERT_EQ(hbusOwnName(name.c_str()), 0) << "is the agent still running?";
        ASSERT_EQ(hbusRegisterService(&g_service), 0);
        std::vector<hbusSignalEntry> table(TAVEL_SIGNAL_COUNT);
        for (int i = 0; i < TAVEL_SIGNAL_COUNT; ++i) {
            table[static_cast<size_t>(i)] = hbusSignalEntry{};
            strncpy(table[static_cast<size_t>(i)].member, kMembers[i], sizeof(table[0].member) - 1);
            table[static_cast<size_t>(i)].handler = kHandlers[i];
            table[static_cast<size_t>(i)].id = i;
            ASSERT_EQ(hbusAddInterestedSignal(rule(kMembers[i]).c_str()), 0) << kMembers[i];
        }
        ASSERT_EQ(hbusSetInteresetedSignals(table.data(), TAVEL_SIGNAL_COUNT), 0);
        std::thread([] { hbusMainLoop(); }).detach(); // runs for the life of the process
    }

    // The payloads of member received within the wait, oldest first.
    static std::vector<std::string> waitFor(const char *member, size_t count, std::chrono::milliseconds wait)
    {
        std::unique_lock<std::mutex> lock(g_received.mutex);
        g_received.cv.wait_for(lock, wait, [&] { return g_received.payloads[member].size() >= count; });
        return g_received.payloads[member];
    }
};

// Every member of the table gets its signals, payload bytes and length whole,
// also when they are sent from two threads while the loop runs.
TEST_F(Bus, EachSignalArrivesWithItsPayload)
{
    const std::vector<size_t> sizes = {0, 1, 4, 8, 2112};
    for (const char *member : kMembers) {
        std::vector<std::string> sent;
        for (size_t n : sizes) {
            sent.push_back(awkward(n, member[0]));
            if (n >= 4) {
                sent.back()[n / 2] = '\0'; // a payload is bytes, not a C string
            }
        }
        std::thread other([&] {
            for (size_t i = 0; i < sent.size(); i += 2) {
                EXPECT_EQ(hbusSendSignal("conformance", member, sent[i].data(),
                                         static_cast<uint32_t>(sent[i].size())),
                          0);
            }
        });
        other.join();
        for (size_t i = 1; i < sent.size(); i += 2) {
            EXPECT_EQ(
                hbusSendSignal("conformance", member, sent[i].data(), static_cast<uint32_t>(sent[i].size())),
                0);
        }
        std::vector<std::string> got = waitFor(member, sent.size(), std::chrono::seconds(5));
        std::sort(got.begin(), got.end());
        std::sort(sent.begin(), sent.end());
        EXPECT_TRUE(got == sent) << member << ": " << got.size() << " of " << sent.size()
                                 << " signals arrived";
    }
}

TEST_F(Bus, RemovedMatchDeliversNothing)
{
    const char *member = TAVEL_SIG_SET_LOG_LEVEL;
    size_t before = waitFor(member, 0, std::chrono::milliseconds(0)).size();
    ASSERT_EQ(hbusRemoveMatch(rule(member).c_str()), 0);
    ASSERT_EQ(hbusSendSignal("conformance", member, "x", 1), 0);
    EXPECT_EQ(waitFor(member, before + 1, std::chrono::milliseconds(500)).size(), before);
    ASSERT_EQ(hbusAddInterestedSignal(rule(member).c_str()), 0);
    ASSERT_EQ(hbusSendSignal("conformance", member, "y", 1), 0);
    EXPECT_EQ(waitFor(member, before + 1, std::chrono::seconds(5)).size(), before + 1);
}

// A call from outside reaches the dispatch with its argument, and the reply
// written there reaches the caller.  TAVEL_CONFORMANCE_CALL is a command line
// (words split on blanks, no shell) that calls dummyFunction with 41 on the
// platform's bus and prints the uint32 reply.
TEST_F(Bus, MethodCallReachesTheDispatchAndItsReplyTheCaller)
{
    const std::string call = env("TAVEL_CONFORMANCE_CALL");
    if (call.empty()) {
        GTEST_SKIP() << "no caller: set TAVEL_CONFORMANCE_CALL to a command that calls " TAVEL_BUS_METHOD
                        " 41";
    }
    std::vector<std::string> words;
    for (size_t pos = 0; pos < call.size();) {
        size_t end = call.find(' ', pos);
        end = end == std::string::npos ? call.size() : end;
        if (end > pos) {
            words.push_back(call.substr(pos, end - pos));
        }
        pos = end + 1;
    }
    std::vector<char *> argv;
    for (std::string &w : words) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    std::string reply;
    char buf[256];
    for (ssize_t n; rc == 0 && (n = read(out[0], buf, sizeof(buf))) > 0 && reply.size() < 4096;) {
        reply.append(buf, static_cast<size_t>(n));
    }
    close(out[0]);
    ASSERT_EQ(rc, 0) << "cannot run " << words[0];
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(reply, "42\n");
    EXPECT_EQ(g_calls.load(), 1);
    EXPECT_EQ(g_methodName, TAVEL_BUS_METHOD);
}

TEST_F(Bus, BadArgumentsAreErrors)
{
    EXPECT_NE(hbusSendSignal("conformance", nullptr, "x", 1), 0);
    EXPECT_NE(hbusSendSignal("conformance", TAVEL_SIG_BOOTSTRAP, nullptr, 4), 0);
    EXPECT_NE(hbusAddInterestedSignal(nullptr), 0);
    EXPECT_NE(hbusSetInteresetedSignals(nullptr, 1), 0);
    EXPECT_EQ(hbus_get_status_value(0), 0);
}

// ---- log ----

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string logFile(const char *var, const char *name)
{
    if (!env(var).empty()) {
        return env(var);
    }
    return env("TAVEL_ROOT").empty() ? "" : env("TAVEL_ROOT") + "/var/log/" + name;
}

// Every level lands with its level word, one record per call, a long message
// whole up to at least 4 KiB, history events in their own log.
TEST(Log, EveryCallLandsAtItsLevel)
{
    const std::string file = logFile("TAVEL_CONFORMANCE_LOG", "tavel.log");
    const std::string history = logFile("TAVEL_CONFORMANCE_HISTORY", "history.log");
    if (file.empty() || history.empty()) {
        GTEST_SKIP() << "set TAVEL_CONFORMANCE_LOG and TAVEL_CONFORMANCE_HISTORY to the platform's log files";
    }
    const std::string tag = "conf" + std::to_string(getpid());
    const std::string longText(4000, 'L');
    dmlLogDebug("%s-d %d\n", tag.c_str(), 1);
    dmlLogNotice("%s-n %s", tag.c_str(), "two");
    dmlLogError("%s-e %s\n", tag.c_str(), longText.c_str());
    log_log(3, __func__, __LINE__, "%s-l3\n", tag.c_str());
    log_log(5, __func__, __LINE__, "%s-l5\n", tag.c_str());
    log_log(7, __func__, __LINE__, "%s-l7\n", tag.c_str());
    hbusLogFatalReal(__LINE__, __func__, "%s-f\n", tag.c_str());
    event_log_log(6, "%s-event %s", tag.c_str(), "happened");
    const std::string log = slurp(file);
    const std::vector<std::string> want = {
        "debug " + tag + "-d 1\n", "notice " + tag + "-n two\n", "error " + tag + "-e " + longText + "\n",
        "error " + tag + "-l3\n",  "notice " + tag + "-l5\n",    "debug " + tag + "-l7\n",
        "fatal " + tag + "-f\n"};
    for (const std::string &line : want) {
        EXPECT_NE(log.find(line), std::string::npos) << "missing: " << line.substr(0, 40);
    }
    EXPECT_NE(slurp(history).find(tag + "-event happened\n"), std::string::npos);
}

} // namespace
