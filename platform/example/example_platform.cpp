// A second platform behind the same three headers, small enough to read in
// one go: the data model is a directory with one file per parameter (the
// file's bytes are the value), the bus delivers the process's own signals
// to its signal table, and the log appends to one file.  It exists to show
// the seam and to check the conformance suite itself: it passes the suite,
// and TAVEL_EXAMPLE_FAULT plants one fault the suite must catch:
//   password  the management account's password is not read back
//   truncate  stored values are cut to 255 bytes
//   signal    signals of one member (the last table row's) are lost
//
// Files live under $TAVEL_ROOT/flash/example-dml and $TAVEL_ROOT/var/log
// (TAVEL_ROOT is required: this platform never writes outside it).
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "dml.h"
#include "hbus.h"
#include "platform_log.h"

namespace
{

bool fault(const char *name)
{
    const char *f = getenv("TAVEL_EXAMPLE_FAULT");
    return f != nullptr && strcmp(f, name) == 0;
}

std::string root()
{
    const char *r = getenv("TAVEL_ROOT");
    return r != nullptr ? r : "";
}

std::mutex g_dmlMutex; // orders this process's writers; rename() keeps readers whole

std::string paramPath(const char *name)
{
    return root() + "/flash/example-dml/" + name;
}

// 0 and the value (empty when absent), or -1 on an error.
int readParam(const char *name, std::string *value)
{
    value->clear();
    int fd = open(paramPath(name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? 0 : -1;
    }
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0 && value->size() < 65536) {
        value->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return n < 0 ? -1 : 0;
}

int writeParam(const char *name, std::string value)
{
    if (fault("truncate") && value.size() > 255) {
        value.resize(255);
    }
    std::lock_guard<std::mutex> lock(g_dmlMutex);
    std::string dir = root() + "/flash";
    mkdir(dir.c_str(), 0755);
    dir += "/example-dml";
    mkdir(dir.c_str(), 0700);
    std::string path = paramPath(name), tmp = path + ".new";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return -1;
    }
    bool ok = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size()) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    return ok && rename(tmp.c_str(), path.c_str()) == 0 ? 0 : -1;
}

template <size_t N> int getText(const char *name, char (&field)[N])
{
    std::string v;
    if (readParam(name, &v) != 0) {
        return -1;
    }
    memset(field, 0, N);
    v.copy(field, v.size() < N - 1 ? v.size() : N - 1);
    return 0;
}

int getBuf(const char *name, char *buf, size_t size)
{
    std::string v;
    if (buf == nullptr || readParam(name, &v) != 0) {
        return -1;
    }
    memset(buf, 0, size);
    v.copy(buf, v.size() < size - 1 ? v.size() : size - 1);
    return 0;
}

template <size_t N> std::string text(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}

// Cloud setters keep a parameter whose field arrives empty.
int setIfGiven(const char *name, const std::string &value)
{
    return value.empty() ? 0 : writeParam(name, value);
}

int getServer(const char *urlName, const char *flagsName, KPRCConfigServer *cfg)
{
    std::string flags;
    KPRCConfigServer got = *cfg;
    if (getText(urlName, got.URL) != 0 || readParam(flagsName, &flags) != 0) {
        return -1;
    }
    got.flags = static_cast<uint8_t>(atoi(flags.c_str()));
    *cfg = got;
    return 0;
}

int setServer(const char *urlName, const char *flagsName, const KPRCConfigServer *cfg)
{
    return setIfGiven(urlName, text(cfg->URL)) | writeParam(flagsName, std::to_string(cfg->flags));
}

// An account object: URL, Username and Password under one prefix.
int getAccount(const std::string &prefix, ManagementServerInfo *info)
{
    ManagementServerInfo got;
    if (info == nullptr || getText((prefix + "URL").c_str(), got.URL) != 0 ||
        getText((prefix + "Username").c_str(), got.Username) != 0 ||
        getText((prefix + "Password").c_str(), got.Password) != 0) {
        return -1;
    }
    *info = got;
    return 0;
}

__attribute__((format(printf, 3, 0))) void appendLine(const char *file, const char *level, const char *fmt,
                                                      va_list ap)
{
    char msg[8192];
    vsnprintf(msg, sizeof(msg), fmt, ap);
    std::string line = level != nullptr ? std::string(level) + " " + msg : std::string(msg);
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    std::string path = "/dev/stderr";
    if (!root().empty()) {
        mkdir((root() + "/var").c_str(), 0755);
        mkdir((root() + "/var/log").c_str(), 0755);
        path = root() + "/var/log/" + file;
    }
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        ssize_t n = write(fd, line.data(), line.size());
        (void)n;
        close(fd);
    }
}

// The bus: the process's own signals, in order, on the main loop's thread.
struct Bus {
    std::mutex mutex;
    std::condition_variable ready;
    std::vector<std::string> members; // from the match rules; "" matches any
    std::vector<hbusSignalEntry> table;
    std::deque<std::pair<std::string, std::string>> queue;
};
Bus &bus()
{
    static Bus *b = new Bus; // never destroyed: the loop may outlive exit()
    return *b;
}

std::string ruleMember(const char *rule)
{
    const char *m = strstr(rule, "member='");
    if (m == nullptr) {
        return "";
    }
    m += 8;
    const char *end = strchr(m, '\'');
    return end != nullptr ? std::string(m, static_cast<size_t>(end - m)) : "";
}

} // namespace

extern "C" {

int dml_init(int /*mode*/)
{
    return root().empty() ? -1 : 0;
}

const char *dml_getHIECertifcatePath(void)
{
    thread_local std::string path;
    if (readParam("Device.DeviceInfo.X_TAVEL_CACertPath", &path) != 0) {
        path.clear();
    }
    return path.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer): valid until this thread calls again
}

int dml_getModelCapability(ModelCapability *cap)
{
    std::string v;
    if (cap == nullptr || readParam("Device.DeviceInfo.X_TAVEL_CCSyncRequired", &v) != 0) {
        return -1;
    }
    cap->isCCSyncRequired = v == "1" ? 1 : 0;
    return 0;
}

// This platform lists no countries.
int dml_getSupportedCountryList(SupportedCountryList *list)
{
    if (list == nullptr) {
        return -1;
    }
    list->groupCount = 0;
    list->groups = nullptr;
    return 0;
}

int dml_getManagementServerInfo(ManagementServerInfo *info)
{
    int rc = getAccount("Device.ManagementServer.", info);
    if (rc == 0 && fault("password")) {
        memset(info->Password, 0, sizeof(info->Password));
    }
    return rc;
}

int dml_setManagementServerInfo(const ManagementServerInfo *info)
{
    if (info == nullptr) {
        return -1;
    }
    return writeParam("Device.ManagementServer.URL", text(info->URL)) |
           writeParam("Device.ManagementServer.Username", text(info->Username)) |
           writeParam("Device.ManagementServer.Password", text(info->Password));
}

int dml_getDefaultManagmentInfo(ManagementServerInfo *info)
{
    return getAccount("Device.ManagementServer.X_TAVEL_Backup.", info);
}

int dml_getOnBoardingServerInfo(OnBoardingServerInfo *info)
{
    OnBoardingServerInfo got;
    std::string enable;
    if (info == nullptr || readParam("Device.X_TAVEL_Agent.Enable", &enable) != 0 ||
        getText("Device.X_TAVEL_Agent.URL", got.URL) != 0 ||
        getText("Device.X_TAVEL_Agent.OnBoardStatus", got.onBoardStatus) != 0 ||
        getText("Device.X_TAVEL_Agent.OpDesc", got.opDesc) != 0 ||
        getText("Device.X_TAVEL_Agent.SubnetDesc", got.subnetDesc) != 0 ||
        getText("Device.X_TAVEL_Agent.APIKey", got.apiKey) != 0 ||
        getText("Device.X_TAVEL_Agent.ACSConnStatus", got.acsConnStatus) != 0) {
        return -1;
    }
    got.enable = atoi(enable.c_str()) != 0 ? 1 : 0;
    *info = got;
    return 0;
}

int dml_setOnBoardStatus(const char *status)
{
    return status == nullptr ? -1 : writeParam("Device.X_TAVEL_Agent.OnBoardStatus", status);
}

int dml_setOpSubnetDesc(const char *opDesc, const char *subnetDesc)
{
    if (opDesc == nullptr || subnetDesc == nullptr) {
        return -1;
    }
    return writeParam("Device.X_TAVEL_Agent.OpDesc", opDesc) |
           writeParam("Device.X_TAVEL_Agent.SubnetDesc", subnetDesc);
}

int dml_getWorkMode(char mode[DML_WORKMODE_LEN])
{
    return getBuf("Device.X_TAVEL_WiFiService.WorkMode", mode, DML_WORKMODE_LEN);
}

int dml_getWorkRole(char role[DML_WORKMODE_LEN])
{
    return getBuf("Device.X_TAVEL_WiFiService.WorkRole", role, DML_WORKMODE_LEN);
}

int dml_getNodeInfo(NodeInfo *info)
{
    NodeInfo got = info != nullptr ? *info : NodeInfo{};
    if (info == nullptr || getText("Device.DeviceInfo.SerialNumber", got.serialNumber) != 0 ||
        getText("Device.DeviceInfo.X_TAVEL_OperatorID", got.operatorId) != 0 ||
        getText("Device.DeviceInfo.X_TAVEL_Country", got.country) != 0) {
        return -1;
    }
    *info = got;
    return 0;
}

int dml_getCountryID(char code[DML_COUNTRYID_LEN])
{
    return getBuf("Device.DeviceInfo.X_TAVEL_CountryCode", code, DML_COUNTRYID_LEN);
}

int dml_setCountryID(const char *code)
{
    return code == nullptr ? -1 : writeParam("Device.DeviceInfo.X_TAVEL_CountryCode", code);
}

int dml_getTimeZone(char tz[DML_TIMEZONE_LEN])
{
    return getBuf("Device.Time.LocalTimeZone", tz, DML_TIMEZONE_LEN);
}

int dml_setTimeZone(const char *tz, const char *zoneName)
{
    if (tz == nullptr || zoneName == nullptr) {
        return -1;
    }
    return writeParam("Device.Time.LocalTimeZone", tz) |
           writeParam("Device.Time.X_TAVEL_LocalTimeZoneName", zoneName);
}

int dml_getKPRCConfigL1Server(KPRCConfigServer *cfg)
{
    return cfg == nullptr ? -1 : getServer("Device.X_TAVEL_Cloud.L1URL", "Device.X_TAVEL_Cloud.L1Flags", cfg);
}

int dml_setKPRCConfigL1Server(const KPRCConfigServer *cfg)
{
    return cfg == nullptr ? -1 : setServer("Device.X_TAVEL_Cloud.L1URL", "Device.X_TAVEL_Cloud.L1Flags", cfg);
}

int dml_getKPRCConfigL2Server(KPRCConfigServer *cfg)
{
    return cfg == nullptr ? -1 : getServer("Device.X_TAVEL_Cloud.L2URL", "Device.X_TAVEL_Cloud.L2Flags", cfg);
}

int dml_setKPRCConfigL2Server(const KPRCConfigServer *cfg)
{
    return cfg == nullptr ? -1 : setServer("Device.X_TAVEL_Cloud.L2URL", "Device.X_TAVEL_Cloud.L2Flags", cfg);
}

int dml_getKPRCRAccessConfig(KPRCRAccessConfig *cfg)
{
    return cfg == nullptr ? -1 : getText("Device.X_TAVEL_Cloud.RemoteAccessURL", cfg->URL);
}

int dml_setKPRCRAccessConfig(const KPRCRAccessConfig *cfg)
{
    return cfg == nullptr ? -1 : setIfGiven("Device.X_TAVEL_Cloud.RemoteAccessURL", text(cfg->URL));
}

int dml_getKPRCZoragentConfig(KPRCZoragentConfig *cfg)
{
    KPRCZoragentConfig got;
    if (cfg == nullptr || getText("Device.X_TAVEL_Cloud.ConfigURL", got.configURL) != 0 ||
        getText("Device.X_TAVEL_Cloud.ConfigAPIKey", got.apiKey) != 0) {
        return -1;
    }
    *cfg = got;
    return 0;
}

int dml_setKPRCZoragentConfig(const KPRCZoragentConfig *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    return setIfGiven("Device.X_TAVEL_Cloud.ConfigURL", text(cfg->configURL)) |
           setIfGiven("Device.X_TAVEL_Cloud.ConfigAPIKey", text(cfg->apiKey));
}

#define EXAMPLE_LOG(file, level, fmt)                                                                        \
    do {                                                                                                     \
        va_list ap;                                                                                          \
        va_start(ap, fmt);                                                                                   \
        appendLine(file, level, fmt, ap);                                                                    \
        va_end(ap);                                                                                          \
    } while (0)

void dmlLogDebug(const char *fmt, ...)
{
    EXAMPLE_LOG("tavel.log", "debug", fmt);
}
void dmlLogNotice(const char *fmt, ...)
{
    EXAMPLE_LOG("tavel.log", "notice", fmt);
}
void dmlLogError(const char *fmt, ...)
{
    EXAMPLE_LOG("tavel.log", "error", fmt);
}

void log_log(int level, const char * /*func*/, int /*line*/, const char *fmt, ...)
{
    EXAMPLE_LOG("tavel.log",
                level <= 2   ? "fatal"
                : level == 3 ? "error"
                : level <= 6 ? "notice"
                             : "debug",
                fmt);
}

void event_log_log(int /*type*/, const char *fmt, ...)
{
    EXAMPLE_LOG("history.log", nullptr, fmt);
}

void hbusLogFatalReal(int /*line*/, const char * /*func*/, const char *fmt, ...)
{
    EXAMPLE_LOG("tavel.log", "fatal", fmt);
}

int hbusOwnName(const char *name)
{
    return name == nullptr || name[0] == '\0' ? -1 : 0;
}

int hbusRegisterService(hbusService *svc)
{
    return svc == nullptr ? -1 : 0;
}

int hbus_get_status_value(int status)
{
    return status;
}

int hbusAddInterestedSignal(const char *matchRule)
{
    if (matchRule == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(bus().mutex);
    bus().members.push_back(ruleMember(matchRule));
    return 0;
}

int hbusRemoveMatch(const char *matchRule)
{
    if (matchRule == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(bus().mutex);
    auto &m = bus().members;
    for (auto it = m.begin(); it != m.end(); ++it) {
        if (*it == ruleMember(matchRule)) {
            m.erase(it);
            return 0;
        }
    }
    return -1;
}

int hbusSetInteresetedSignals(const hbusSignalEntry *table, int count)
{
    if (count < 0 || (table == nullptr && count > 0)) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(bus().mutex);
    bus().table.assign(table, table + count);
    return 0;
}

int hbusMainLoop(void)
{
    Bus &b = bus();
    for (;;) {
        std::unique_lock<std::mutex> lock(b.mutex);
        b.ready.wait(lock, [&] { return !b.queue.empty(); });
        auto sig = b.queue.front();
        b.queue.pop_front();
        bool wanted = false;
        for (const std::string &m : b.members) {
            wanted = wanted || m.empty() || m == sig.first;
        }
        std::vector<hbusSignalEntry> rows = b.table;
        lock.unlock();
        if (!wanted || (fault("signal") && !rows.empty() && sig.first == text(rows.back().member))) {
            continue;
        }
        for (const hbusSignalEntry &row : rows) {
            if (row.handler != nullptr && sig.first == text(row.member)) {
                row.handler(nullptr, nullptr, sig.second.empty() ? nullptr : sig.second.data(),
                            static_cast<uint32_t>(sig.second.size()));
            }
        }
    }
}

// No caller can reach this bus from outside the process: no method calls.
int hbusIsMethodCall(hbusMessage * /*msg*/, const char * /*service*/, const char * /*method*/)
{
    return 0;
}

int hbusReadParcelInt32(hbusMessage * /*msg*/, int32_t * /*value*/)
{
    return -1;
}

int hbusWriteParcelUint32(hbusMessage * /*reply*/, uint32_t /*value*/)
{
    return -1;
}

int hbusReadParcelString(hbusMessage * /*msg*/, char *buf, uint32_t size)
{
    if (buf != nullptr && size > 0) {
        buf[0] = '\0';
    }
    return -1;
}

int hbusWriteParcelString(hbusMessage * /*reply*/, const char * /*text*/)
{
    return -1;
}

const char *hbusGetMethodName(hbusMessage * /*msg*/)
{
    return "";
}

int hbusSendSignal(const char * /*sender*/, const char *member, const void *data, uint32_t len)
{
    if (member == nullptr || member[0] == '\0' || (data == nullptr && len > 0)) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(bus().mutex);
    bus().queue.emplace_back(member, data != nullptr ? std::string(static_cast<const char *>(data), len)
                                                     : std::string());
    bus().ready.notify_one();
    return 0;
}

} // extern "C"
