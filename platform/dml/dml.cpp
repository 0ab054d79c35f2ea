// Stand-in for the platform data-model layer: every dml_ operation maps its
// record fields onto parameters of the text store (store.h).
//
// Each call sees the store as it stands, so another process (tavelctl, a
// test) may change the device between two calls; the parse of the file is
// reused while the file is unchanged (store.h) and dropped by
// dml_releaseCache().  Any call fails, outputs untouched, while the store
// holds "Fault.<operation>=1".  Texts longer than their record field are cut
// to fit and the rest of the field is zeroed.
//
// Thread safety: the state shared between calls is the parse (behind its own
// mutex), the supported country list (behind a mutex) and the per-thread
// certificate path.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>
#include <string>
#include <vector>

#include "dml.h"
#include "platform_log.h"
#include "store.h"

namespace
{

using tavel::dml::CachedStore;
using tavel::dml::Change;
using tavel::dml::Store;
using tavel::dml::UpdateResult;

constexpr const char kAgentEnable[] = "Device.X_TAVEL_Agent.Enable";
constexpr const char kAgentUrl[] = "Device.X_TAVEL_Agent.URL";
constexpr const char kAgentApiKey[] = "Device.X_TAVEL_Agent.APIKey";
constexpr const char kAgentStatus[] = "Device.X_TAVEL_Agent.OnBoardStatus";
constexpr const char kAgentOpDesc[] = "Device.X_TAVEL_Agent.OpDesc";
constexpr const char kAgentSubnetDesc[] = "Device.X_TAVEL_Agent.SubnetDesc";
constexpr const char kAgentAcsStatus[] = "Device.X_TAVEL_Agent.ACSConnStatus";
constexpr const char kMgmtUrl[] = "Device.ManagementServer.URL";
constexpr const char kMgmtUser[] = "Device.ManagementServer.Username";
constexpr const char kMgmtPassword[] = "Device.ManagementServer.Password";
constexpr const char kBackupUrl[] = "Device.ManagementServer.X_TAVEL_Backup.URL";
constexpr const char kBackupUser[] = "Device.ManagementServer.X_TAVEL_Backup.Username";
constexpr const char kBackupPassword[] = "Device.ManagementServer.X_TAVEL_Backup.Password";
constexpr const char kWorkMode[] = "Device.X_TAVEL_WiFiService.WorkMode";
constexpr const char kWorkRole[] = "Device.X_TAVEL_WiFiService.WorkRole";
constexpr const char kSerial[] = "Device.DeviceInfo.SerialNumber";
constexpr const char kOperatorId[] = "Device.DeviceInfo.X_TAVEL_OperatorID";
constexpr const char kNodeCountry[] = "Device.DeviceInfo.X_TAVEL_Country";
constexpr const char kCaCertPath[] = "Device.DeviceInfo.X_TAVEL_CACertPath";
constexpr const char kCcSync[] = "Device.DeviceInfo.X_TAVEL_CCSyncRequired";
constexpr const char kCountries[] = "Device.DeviceInfo.X_TAVEL_SupportedCountries";
constexpr const char kCountryCode[] = "Device.DeviceInfo.X_TAVEL_CountryCode";
constexpr const char kTimeZone[] = "Device.Time.LocalTimeZone";
constexpr const char kTimeZoneName[] = "Device.Time.X_TAVEL_LocalTimeZoneName";
constexpr const char kL1Url[] = "Device.X_TAVEL_Cloud.L1URL";
constexpr const char kL1Flags[] = "Device.X_TAVEL_Cloud.L1Flags";
constexpr const char kL2Url[] = "Device.X_TAVEL_Cloud.L2URL";
constexpr const char kL2Flags[] = "Device.X_TAVEL_Cloud.L2Flags";
constexpr const char kRemoteAccessUrl[] = "Device.X_TAVEL_Cloud.RemoteAccessURL";
constexpr const char kConfigUrl[] = "Device.X_TAVEL_Cloud.ConfigURL";
constexpr const char kConfigApiKey[] = "Device.X_TAVEL_Cloud.ConfigAPIKey";

// Runs fill on the store for one operation; -1 without calling it when the
// store cannot be read or the operation's fault line is set.  Other threads'
// calls wait while fill runs.  Not a template: one copy for every getter.
int readWith(const char *operation, void (*fill)(const Store &, void *), void *context)
{
    std::string error;
    {
        CachedStore store(&error);
        if (store.ok()) {
            if (store->faultSet(operation)) {
                return -1;
            }
            fill(*store, context);
            return 0;
        }
    }
    dmlLogError("dml: %s: %s\n", operation, error.c_str());
    return -1;
}

template <typename Fill> int read(const char *operation, Fill &&fill)
{
    return readWith(
        operation, [](const Store &store, void *f) { (*static_cast<Fill *>(f))(store); },
        static_cast<void *>(&fill));
}

int save(const char *operation, const std::vector<Change> &changes)
{
    std::string error;
    UpdateResult result = tavel::dml::update(changes, operation, &error);
    if (result == UpdateResult::Error) {
        dmlLogError("dml: %s: %s\n", operation, error.c_str());
    }
    return result == UpdateResult::Ok ? 0 : -1;
}

// Cuts at the field (or an embedded NUL) and zeroes the rest, so no stale
// bytes of the caller's record survive behind the text.
void copyText(char *dst, size_t size, const std::string &value)
{
    size_t n = strnlen(value.c_str(), size - 1);
    memcpy(dst, value.data(), n);
    memset(dst + n, 0, size - n);
}

template <size_t N> void copyText(char (&dst)[N], const std::string &value)
{
    copyText(dst, N, value);
}

// A record field the caller may have filled to the last byte without a NUL.
template <size_t N> std::string fieldText(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}

bool isDecimal(const std::string &text, size_t from)
{
    if (from >= text.size()) {
        return false;
    }
    for (size_t i = from; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    return true;
}

// Any decimal number other than zero enables, however large.
bool isEnabled(const std::string &text)
{
    size_t from = (!text.empty() && (text[0] == '+' || text[0] == '-')) ? 1 : 0;
    return isDecimal(text, from) && text.find_first_not_of('0', from) != std::string::npos;
}

// Flags outside 0..255 or not a number read as 0.
uint8_t parseFlags(const std::string &text)
{
    if (!isDecimal(text, 0) || text.size() > 3) {
        return 0;
    }
    unsigned long value = strtoul(text.c_str(), nullptr, 10);
    return value <= 255 ? static_cast<uint8_t>(value) : 0;
}

int getText(const char *operation, const char *name, char *out, size_t size)
{
    if (out == nullptr) {
        return -1;
    }
    return read(operation, [&](const Store &store) { copyText(out, size, store.get(name)); });
}

int getCloudServer(const char *operation, const char *urlName, const char *flagsName, KPRCConfigServer *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    return read(operation, [&](const Store &store) {
        copyText(cfg->URL, store.get(urlName));
        cfg->flags = parseFlags(store.get(flagsName));
    });
}

int setCloudServer(const char *operation, const char *urlName, const char *flagsName,
                   const KPRCConfigServer *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    std::vector<Change> changes;
    std::string url = fieldText(cfg->URL);
    if (!url.empty()) {
        changes.push_back(Change{urlName, url});
    }
    char flags[4];
    snprintf(flags, sizeof(flags), "%u", static_cast<unsigned>(cfg->flags));
    changes.push_back(Change{flagsName, flags});
    return save(operation, changes);
}

// The agent keeps the pointers of the supported country list, so the arrays
// live in the library.  A call that finds the same list returns the same
// arrays; a call that finds a changed list frees the old ones, and pointers
// from earlier calls are then no longer valid.  The cache is never
// destroyed, so a thread still reading it while the process exits is safe.
struct CountryCache {
    std::mutex mutex;
    bool built = false;
    std::string source;
    std::vector<std::vector<CountryEntry>> entries;
    std::vector<CountryGroup> groups;
};

CountryCache &countryCache()
{
    static CountryCache *cache = new CountryCache;
    return *cache;
}

std::string trimmed(const std::string &text, size_t begin, size_t end)
{
    while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) {
        ++begin;
    }
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t')) {
        --end;
    }
    return text.substr(begin, end - begin);
}

// "US,CA;GB,FR,DE": groups split by ';', codes by ','.  Blank codes and
// groups without any code are dropped.
void buildCountries(CountryCache &cache, const std::string &source)
{
    cache.entries.clear();
    cache.groups.clear();
    size_t groupBegin = 0;
    while (groupBegin <= source.size()) {
        size_t groupEnd = source.find(';', groupBegin);
        if (groupEnd == std::string::npos) {
            groupEnd = source.size();
        }
        std::vector<CountryEntry> codes;
        size_t codeBegin = groupBegin;
        while (codeBegin <= groupEnd) {
            size_t codeEnd = source.find(',', codeBegin);
            if (codeEnd == std::string::npos || codeEnd > groupEnd) {
                codeEnd = groupEnd;
            }
            std::string code = trimmed(source, codeBegin, codeEnd);
            if (!code.empty()) {
                CountryEntry entry;
                memset(&entry, 0, sizeof(entry));
                copyText(entry.code, code);
                // A code starting with a NUL byte would be cut to nothing.
                if (entry.code[0] != '\0') {
                    codes.push_back(entry);
                }
            }
            codeBegin = codeEnd + 1;
        }
        if (!codes.empty()) {
            cache.entries.push_back(std::move(codes));
        }
        groupBegin = groupEnd + 1;
    }
    for (std::vector<CountryEntry> &codes : cache.entries) {
        CountryGroup group;
        memset(&group, 0, sizeof(group));
        group.countryCount = static_cast<int32_t>(codes.size());
        group.countries = codes.data();
        cache.groups.push_back(group);
    }
    cache.source = source;
    cache.built = true;
}

} // namespace

extern "C" {

// The mode is the platform's; the stand-in checks that the store is usable
// after clearing away what writes killed before their rename left behind.
int dml_init(int /*mode*/)
{
    std::string error;
    const std::string path = tavel::dml::storePath();
    int removed = tavel::dml::removeStaleTemporaries(path, &error);
    if (removed < 0) {
        dmlLogError("dml: %s: %s\n", __func__, error.c_str());
    } else if (removed > 0) {
        dmlLogNotice("dml: %s: removed %d temporary file(s) %s.tmp.* of writes that did not finish\n",
                     __func__, removed, path.c_str());
    }
    return read(__func__, [](const Store &) {});
}

// Dropping the parse returns its memory; the next call parses the file again.
void dml_releaseCache(void)
{
    tavel::dml::releaseCache();
}

void dml_setWaitCancel(int (*cancelled)(void))
{
    tavel::dml::setWaitCancel(cancelled);
}

const char *dml_getHIECertifcatePath(void)
{
    thread_local std::string path;
    if (read(__func__, [](const Store &store) { path = store.get(kCaCertPath); }) != 0) {
        path.clear();
    }
    return path.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer): valid until this thread calls again
}

int dml_getModelCapability(ModelCapability *cap)
{
    if (cap == nullptr) {
        return -1;
    }
    return read(__func__,
                [&](const Store &store) { cap->isCCSyncRequired = store.get(kCcSync) == "1" ? 1 : 0; });
}

int dml_getSupportedCountryList(SupportedCountryList *list)
{
    std::string source;
    if (list == nullptr || read(__func__, [&](const Store &store) { source = store.get(kCountries); }) != 0) {
        return -1;
    }
    CountryCache &cache = countryCache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (!cache.built || cache.source != source) {
        buildCountries(cache, source);
    }
    list->groupCount = static_cast<int32_t>(cache.groups.size());
    list->groups = cache.groups.empty() ? nullptr : cache.groups.data();
    return 0;
}

int dml_getManagementServerInfo(ManagementServerInfo *info)
{
    if (info == nullptr) {
        return -1;
    }
    return read(__func__, [&](const Store &store) {
        copyText(info->URL, store.get(kMgmtUrl));
        copyText(info->Username, store.get(kMgmtUser));
        copyText(info->Password, store.get(kMgmtPassword));
    });
}

// Empty fields are stored too: the agent empties the object on purpose.
int dml_setManagementServerInfo(const ManagementServerInfo *info)
{
    if (info == nullptr) {
        return -1;
    }
    return save(__func__,
                {Change{kMgmtUrl, fieldText(info->URL)}, Change{kMgmtUser, fieldText(info->Username)},
                 Change{kMgmtPassword, fieldText(info->Password)}});
}

int dml_getDefaultManagmentInfo(ManagementServerInfo *info)
{
    if (info == nullptr) {
        return -1;
    }
    return read(__func__, [&](const Store &store) {
        copyText(info->URL, store.get(kBackupUrl));
        copyText(info->Username, store.get(kBackupUser));
        copyText(info->Password, store.get(kBackupPassword));
    });
}

int dml_getOnBoardingServerInfo(OnBoardingServerInfo *info)
{
    if (info == nullptr) {
        return -1;
    }
    return read(__func__, [&](const Store &store) {
        info->enable = isEnabled(store.get(kAgentEnable)) ? 1 : 0;
        copyText(info->URL, store.get(kAgentUrl));
        copyText(info->onBoardStatus, store.get(kAgentStatus));
        copyText(info->opDesc, store.get(kAgentOpDesc));
        copyText(info->subnetDesc, store.get(kAgentSubnetDesc));
        copyText(info->apiKey, store.get(kAgentApiKey));
        copyText(info->acsConnStatus, store.get(kAgentAcsStatus));
    });
}

int dml_setOnBoardStatus(const char *status)
{
    if (status == nullptr) {
        return -1;
    }
    return save(__func__, {Change{kAgentStatus, status}});
}

int dml_setOpSubnetDesc(const char *opDesc, const char *subnetDesc)
{
    if (opDesc == nullptr || subnetDesc == nullptr) {
        return -1;
    }
    return save(__func__, {Change{kAgentOpDesc, opDesc}, Change{kAgentSubnetDesc, subnetDesc}});
}

int dml_getWorkMode(char mode[DML_WORKMODE_LEN])
{
    return getText(__func__, kWorkMode, mode, DML_WORKMODE_LEN);
}

int dml_getWorkRole(char role[DML_WORKMODE_LEN])
{
    return getText(__func__, kWorkRole, role, DML_WORKMODE_LEN);
}

int dml_getNodeInfo(NodeInfo *info)
{
    if (info == nullptr) {
        return -1;
    }
    return read(__func__, [&](const Store &store) {
        copyText(info->serialNumber, store.get(kSerial));
        copyText(info->operatorId, store.get(kOperatorId));
        copyText(info->country, store.get(kNodeCountry));
    });
}

int dml_getCountryID(char code[DML_COUNTRYID_LEN])
{
    return getText(__func__, kCountryCode, code, DML_COUNTRYID_LEN);
}

int dml_setCountryID(const char *code)
{
    if (code == nullptr) {
        return -1;
    }
    return save(__func__, {Change{kCountryCode, code}});
}

int dml_getTimeZone(char tz[DML_TIMEZONE_LEN])
{
    return getText(__func__, kTimeZone, tz, DML_TIMEZONE_LEN);
}

int dml_setTimeZone(const char *tz, const char *zoneName)
{
    if (tz == nullptr || zoneName == nullptr) {
        return -1;
    }
    return save(__func__, {Change{kTimeZone, tz}, Change{kTimeZoneName, zoneName}});
}

int dml_getKPRCConfigL1Server(KPRCConfigServer *cfg)
{
    return getCloudServer(__func__, kL1Url, kL1Flags, cfg);
}

int dml_setKPRCConfigL1Server(const KPRCConfigServer *cfg)
{
    return setCloudServer(__func__, kL1Url, kL1Flags, cfg);
}

int dml_getKPRCConfigL2Server(KPRCConfigServer *cfg)
{
    return getCloudServer(__func__, kL2Url, kL2Flags, cfg);
}

int dml_setKPRCConfigL2Server(const KPRCConfigServer *cfg)
{
    return setCloudServer(__func__, kL2Url, kL2Flags, cfg);
}

int dml_getKPRCRAccessConfig(KPRCRAccessConfig *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    return read(__func__, [&](const Store &store) { copyText(cfg->URL, store.get(kRemoteAccessUrl)); });
}

int dml_setKPRCRAccessConfig(const KPRCRAccessConfig *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    std::vector<Change> changes;
    std::string url = fieldText(cfg->URL);
    if (!url.empty()) {
        changes.push_back(Change{kRemoteAccessUrl, url});
    }
    return save(__func__, changes);
}

int dml_getKPRCZoragentConfig(KPRCZoragentConfig *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    return read(__func__, [&](const Store &store) {
        copyText(cfg->configURL, store.get(kConfigUrl));
        copyText(cfg->apiKey, store.get(kConfigApiKey));
    });
}

// The agent writes the URL and the key in two calls, each with the other
// field empty; an empty field therefore keeps the stored value.
int dml_setKPRCZoragentConfig(const KPRCZoragentConfig *cfg)
{
    if (cfg == nullptr) {
        return -1;
    }
    std::vector<Change> changes;
    std::string url = fieldText(cfg->configURL);
    std::string key = fieldText(cfg->apiKey);
    if (!url.empty()) {
        changes.push_back(Change{kConfigUrl, url});
    }
    if (!key.empty()) {
        changes.push_back(Change{kConfigApiKey, key});
    }
    return save(__func__, changes);
}

} // extern "C"
