// Real requests to the onboarding-server simulator on 127.0.0.1 from the fixed local ports
// 47777-47779, so never in parallel with anything else that makes requests.
#include "test_env.h"

namespace
{

// One simulator process; it re-reads its script file on every request.
struct Obsim {
    bool start(const std::string &dir, const std::string &tag, bool plain)
    {
        script = dir + "/" + tag + "script.json";
        record = dir + "/" + tag + "requests.jsonl";
        const std::string portFile = dir + "/" + tag + "port";
        const char *src = getenv("TAVEL_SOURCE_DIR");
        const std::string srcDir =
            src != nullptr && src[0] != '\0' ? src : std::filesystem::path(__FILE__).parent_path() / "../..";
        setScript("{}");
        const std::string cmd = "exec python3 " + srcDir + "/tools/obsim/obsim.py --dir " + dir +
                                " --script " + script + " --record " + record + " --port-file " + portFile +
                                (plain ? " --plain" : "") + " >/dev/null";
        if ((pid = fork()) == 0) {
            execl("/bin/sh", "sh", "-c", cmd.c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; i < 200 && port <= 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            port = atoi(tavelTestSlurp(portFile).c_str());
        }
        return port > 0;
    }
    void stop() const
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    void setScript(const std::string &json) const
    {
        std::ofstream(script + ".tmp", std::ios::trunc) << json;
        std::filesystem::rename(script + ".tmp", script);
    }
    int records(const std::string &kind) const { return tavelTestCount(tavelTestSlurp(record), kind); }
    std::string url(const std::string &path, bool tls = true) const
    {
        return std::string(tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port) + path;
    }

    pid_t pid = -1;
    int port = 0;
    std::string script, record;
};

const char *kGet = "\"method\": \"GET\"", *kPut = "\"method\": \"PUT\"";

class CurlTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/tavel-obsim-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        certDir_ = tmpl;
        ASSERT_TRUE(tls_.start(certDir_, "", false)) << "obsim did not start";
        ASSERT_TRUE(plain_.start(certDir_, "plain-", true)) << "plain obsim did not start";
    }
    static void TearDownTestSuite()
    {
        tls_.stop();
        plain_.stop();
        std::error_code ec;
        std::filesystem::remove_all(certDir_, ec);
    }
    void SetUp() override
    {
        ASSERT_FALSE(certDir_.empty());
        tavelTestCleanRoot();
        tavelTestFreshReply();
        std::ofstream(tls_.record, std::ios::trunc);
        std::ofstream(plain_.record, std::ios::trunc);
        memset(&info_, 0, sizeof(info_));
        setUrl(tls_.url("/onboard"));
        info_.timeout = 10;
        tavel_copyText(info_.x_api_key, sizeof(info_.x_api_key), "key-123", sizeof(info_.x_api_key) - 1);
        setCa("/ca.pem");
    }
    void setUrl(const std::string &url) { tavel_copyText(info_.url, sizeof(info_.url), url.c_str(), 255); }
    void setCa(const std::string &file)
    {
        std::string path = certDir_ + file;
        ASSERT_LT(path.size(), sizeof(info_.caCertPath));
        tavel_copyText(info_.caCertPath, sizeof(info_.caCertPath), path.c_str(),
                       sizeof(info_.caCertPath) - 1);
    }

    static inline std::string certDir_;
    static inline Obsim tls_, plain_;
    HttpInfo info_;
};

} // namespace

// The fully set request runs in test_onboarding.py.  The GET notes every status from 400 on,
// the PUT reports those it passes on as errors; neither sends empty values.
TEST_F(CurlTest, RequestsMapTheStatusStoreTheReplyAndFollowTheCaFileRules)
{
    // The GET's scheme decides: "https" anywhere in the URL asks for the file.
    plain_.setScript(R"({"get": {"status": 200, "headers": ["tenantid: plain\r\n"]}})");
    setCa("/missing.pem");
    setUrl(plain_.url("/onboard", false));
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), 200);
    EXPECT_STREQ(g_serverData.tenantID, "plain");
    setUrl(plain_.url("/onboard?next=https", false));
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), TAVEL_RC_NO_CERT);
    EXPECT_EQ(plain_.records(kGet), 1);

    // For the PUT any existing file switches peer verification off; without
    // one, libcurl's default store decides, which does not know the test CA.
    tls_.setScript(R"({"put": {"status": 200}})");
    setUrl(tls_.url("/onboard"));
    setCa("/other-ca.pem");
    EXPECT_EQ(httpPutToServer(&info_), 200);
    setCa("/missing.pem");
    EXPECT_EQ(httpPutToServer(&info_), TAVEL_RC_TRANSFER_FAILED);
    EXPECT_EQ(tls_.records(kPut), 1);
    // The simulator may record the failed handshake just after the client gave up.
    for (int i = 0; i < 100 && tls_.records("tls_error") == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(tls_.records("tls_error"), 1);

    setCa("/ca.pem");
    tls_.setScript(
        R"({"get": [{"status": 200, "headers": ["url: https://acs.example:7547/acs\r\n", "opdesc: Op One\r\n"],
                    "body": "{}"}, {"status": 204}, {"status": 302},
                   {"status": 401, "headers": ["url: from-401\r\n"]}, {"status": 503}, {"status": 504},
                   {"status": 505}, {"status": 599}],
            "put": [{"status": 401}, {"status": 504}, {"status": 503}, {"status": 200}]})");
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), 200);
    EXPECT_STREQ(g_serverData.mgmtUrl, "https://acs.example:7547/acs");
    EXPECT_STREQ(g_serverData.operdesc, "Op One\r");
    EXPECT_TRUE(tavelTestLogHas("debug", "HTTPS Get Url:server returned Errorcode : 200"));
    EXPECT_TRUE(tavelTestLogHas("debug", "{}"));
    for (int expected : {204, 302, 401, 503, 504, 504, 504}) {
        EXPECT_EQ(httpGetUrlFromServer(&info_, ""), expected);
    }
    EXPECT_EQ(tls_.records(kGet), 8);
    for (const char *name : {"\"operatorid", "\"sn:", "\"country", "\"snetdesc", "\"opdesc"}) {
        EXPECT_EQ(tls_.records(name), 0) << name;
    }
    // Headers of an error reply are stored all the same.
    EXPECT_STREQ(g_serverData.mgmtUrl, "from-401");
    EXPECT_TRUE(tavelTestLogHas("debug", "HTTPS Get Url Not Successful Res : 401"));
    EXPECT_TRUE(tavelTestLogHas("debug", "HTTPS Get Url Not Successful Res : 505"));
    EXPECT_FALSE(tavelTestLogHas("debug", "HTTPS Get Url Not Successful Res : 302"));
    EXPECT_TRUE(tavelTestLogHas("debug", "HTTPS Response :505"));

    tavelTestFreshReply();
    setUrl(tls_.url("/onboard?status=ERROR:CONN_FAILED"));
    for (int expected : {401, 504, 503, 200}) {
        EXPECT_EQ(httpPutToServer(&info_), expected);
    }
    EXPECT_EQ(tls_.records(kPut), 5);
    EXPECT_TRUE(tavelTestLogHas("error", "HTTPS Get Url:server returned Errorcode : 401"));
}

TEST_F(CurlTest, RequestsSurviveHostileAndSilentServers)
{
    // A header line far over libcurl's own limit ends the transfer.
    tls_.setScript(
        R"({"get": {"status": 200, "headers": ["url: before-big\r\n", {"name": "x-big", "fill": 1048576},
                   "url: after-big\r\n"]}})");
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), TAVEL_RC_TRANSFER_FAILED);
    EXPECT_STREQ(g_serverData.mgmtUrl, "before-big");

    // Seven thousand header lines (2000 of them time zones) are all read and the later url wins,
    // but only the trace's head and a count are logged: such replies must not fill the log.
    tls_.setScript(
        R"({"get": {"status": 200, "headers": ["url: first\r\n", {"line": "x-pad: p\r\n", "repeat": 5000},
                   {"line": "timezone: {\"code\":\"CET\",\"x\":\"y\",\"id\":\"Europe\\/Paris\"}\r\n",
                    "repeat": 2000}, "url: last\r\n"]}})");
    size_t mark = tavelTestLog().size();
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), 200);
    EXPECT_STREQ(g_serverData.mgmtUrl, "last");
    EXPECT_STREQ(g_timezoneData.cityname, "Paris") << "untraced headers are still parsed";
    std::string log = tavelTestLog().substr(mark);
    EXPECT_LT(log.size(), 16u * 1024u);
    EXPECT_NE(log.find(" header value is url: first"), std::string::npos);
    EXPECT_EQ(log.find(" header value is url: last"), std::string::npos);
    EXPECT_NE(log.find("more lines ("), std::string::npos);

    // Reply cut off inside the header block: libcurl takes the close as the
    // end of the block and drops the partial line; whole lines are stored.
    tls_.setScript(
        R"({"get": {"status": 401, "headers": ["l2url: https://l2\r\n", "tenantid: tttttttttt\r\n"],
                   "cut_after": 60}})");
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), 401);
    EXPECT_STREQ(g_serverData.l2url, "https://l2");
    EXPECT_STREQ(g_serverData.tenantID, "");

    // Reply cut off inside a body that was announced longer.
    tls_.setScript(R"({"get": {"status": 200, "headers": ["Content-Length: 1000\r\n"], "body": "short"}})");
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), TAVEL_RC_TRANSFER_FAILED);

    // A large body is read whole, its dump capped.
    tls_.setScript(R"({"get": {"status": 200, "headers": ["url: big-body\r\n"], "body": "HEAD",
                   "body_fill": 52428800}})");
    info_.timeout = 60;
    mark = tavelTestLog().size();
    EXPECT_EQ(httpGetUrlFromServer(&info_, ""), 200);
    EXPECT_STREQ(g_serverData.mgmtUrl, "big-body");
    log = tavelTestLog().substr(mark);
    EXPECT_NE(log.find("HEADbbbb"), std::string::npos);
    EXPECT_NE(log.find("[52428804 bytes, first 4096 logged]"), std::string::npos);
    EXPECT_LT(log.size(), 64u * 1024u);

    // A silent server or none at all ends at the timeout.
    tls_.setScript(R"({"get": {"hang": true}, "put": {"hang": true}})");
    info_.timeout = 2;
    for (auto request : {+[](HttpInfo *info) { return httpGetUrlFromServer(info, ""); }, &httpPutToServer}) {
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(request(&info_), TAVEL_RC_TRANSFER_FAILED);
        double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_GE(secs, 1.5);
        EXPECT_LT(secs, 8.0);
    }
    EXPECT_EQ(tls_.records(kGet), 6);
    setUrl("https://127.0.0.1:1/onboard"); // nothing listens on port 1
    EXPECT_EQ(httpPutToServer(&info_), TAVEL_RC_TRANSFER_FAILED);
}

TEST(CurlBodyBuffer, AppendsChunksAndStaysTerminated)
{
    PollRespBuffer buf{static_cast<char *>(calloc(1, 1)), 0};
    std::string expect;
    // Chunk sizes that cross the buffer's growth steps in odd places.
    char fill = 'a';
    for (size_t n : {0, 1, 1, 2, 5, 7, 16, 17, 1000, 4096, 3, 65536, 9}) {
        std::string chunk(n, fill++);
        EXPECT_EQ(pollRespWriteCallback(chunk.data(), 1, n, &buf), n);
        expect += chunk;
        ASSERT_EQ(buf.size, expect.size());
        ASSERT_EQ(buf.data[buf.size], '\0');
    }
    EXPECT_EQ(std::string(buf.data, buf.size), expect);
    // size and nmemb multiply.
    EXPECT_EQ(pollRespWriteCallback("abcdef", 3, 2, &buf), 6u);
    EXPECT_EQ(std::string(buf.data + buf.size - 6), "abcdef");
    free(buf.data);
}
