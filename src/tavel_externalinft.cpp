// Thin accessors over the platform data-model layer: work mode and role, and
// the five cloud settings.  Every record lives zero-filled on the stack for one
// call, so a field the agent does not set travels as empty.
#include "tavel_externalinft.h"

#include <string.h>

#include "agent_output.h"
#include "dml.h"
#include "logtext.h"
#include "util.h"

int tavel_intf_getWorkMode(char mode[33])
{
    if (dml_getWorkMode(mode) != 0) {
        TAVEL_LOGE("Get WorkMode ok falied\n");
        return -1;
    }
    TAVEL_LOGN("Get WorkMode ok Value is %s\n", LogText<DML_WORKMODE_LEN>(mode, DML_WORKMODE_LEN).c_str());
    return 0;
}

int tavel_intf_getWorkRole(char role[33])
{
    if (dml_getWorkRole(role) != 0) {
        TAVEL_LOGE("Get WorkRode ok falied\n");
        return -1;
    }
    TAVEL_LOGN("Get workRole ok Value is %s\n", LogText<DML_WORKMODE_LEN>(role, DML_WORKMODE_LEN).c_str());
    return 0;
}

namespace
{

// A stored value longer than the caller's buffer is cut to fit, and a received
// value longer than its record field likewise: the level-1 and level-2 URL
// fields hold up to 1,535 characters, more than the 1,024-byte buffers of the
// emptiness checks.
template <size_t N> void copyField(char (&field)[N], const char *value)
{
    tavel_copyText(field, N, value, N - 1);
}

// The accessors log under their own name: the helpers get it passed in.
enum class Level { L1, L2 };

int getServerUrl(Level level, char *buf, size_t bufSize, const char *func)
{
    KPRCConfigServer cfg;
    memset(&cfg, 0, sizeof(cfg));
    int rc = level == Level::L1 ? dml_getKPRCConfigL1Server(&cfg) : dml_getKPRCConfigL2Server(&cfg);
    if (rc != 0) {
        TAVEL_LOGE_AS(func, "dml get functin failed ...");
        return 0;
    }
    tavel_copyText(buf, bufSize, cfg.URL, sizeof(cfg.URL) - 1);
    if (level == Level::L1) {
        TAVEL_LOGN_AS(func, "getL1ClouldURL is [%s]\n", LogValue(buf, bufSize).c_str());
    } else {
        TAVEL_LOGN_AS(func, "getL2ClouldURL value is [%s]\n", LogValue(buf, bufSize).c_str());
    }
    return 1;
}

int setServerUrl(Level level, const char *url, const char *func)
{
    KPRCConfigServer cfg;
    memset(&cfg, 0, sizeof(cfg));
    copyField(cfg.URL, url);
    cfg.flags |= 0x01;
    int rc = level == Level::L1 ? dml_setKPRCConfigL1Server(&cfg) : dml_setKPRCConfigL2Server(&cfg);
    if (rc != 0) {
        TAVEL_LOGE_AS(func, "dml set  functin failed ...");
        return 0;
    }
    if (level == Level::L1) {
        TAVEL_LOGN_AS(func, "setL1ClouldURL set is [%s]\n", logText(cfg.URL).c_str());
    } else {
        TAVEL_LOGN_AS(func, "setL2ClouldURL is [%s]\n", logText(cfg.URL).c_str());
    }
    return 1;
}

enum class ZorField { Url, ApiKey };

int getZoragent(ZorField which, char *buf, size_t bufSize, const char *func)
{
    KPRCZoragentConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    if (dml_getKPRCZoragentConfig(&cfg) != 0) {
        TAVEL_LOGE_AS(func, "dml get functin failed ...");
        return 0;
    }
    if (which == ZorField::Url) {
        tavel_copyText(buf, bufSize, cfg.configURL, sizeof(cfg.configURL) - 1);
        TAVEL_LOGN_AS(func, "getkprconfigUrl is [%s]\n", LogValue(buf, bufSize).c_str());
    } else {
        tavel_copyText(buf, bufSize, cfg.apiKey, sizeof(cfg.apiKey) - 1);
        TAVEL_LOGN_AS(func, "getkprconfigApikey is [%s]\n", LogValue(tavel_secret(buf), bufSize).c_str());
    }
    return 1;
}

// The URL and the key travel in two separate writes of the same record, each
// with the other field empty; the platform keeps a field that arrives empty.
int setZoragent(ZorField which, const char *value, const char *func)
{
    KPRCZoragentConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    copyField(which == ZorField::Url ? cfg.configURL : cfg.apiKey, value);
    if (dml_setKPRCZoragentConfig(&cfg) != 0) {
        TAVEL_LOGE_AS(func, "dml set  functin failed ...");
        return 0;
    }
    if (which == ZorField::Url) {
        TAVEL_LOGN_AS(func, "setkprconfigUrl set is [%s]\n", logText(cfg.configURL).c_str());
    } else {
        TAVEL_LOGN_AS(func, "setkprconfigApikey set is [%s]\n",
                      LogText<sizeof(cfg.apiKey)>(tavel_secret(cfg.apiKey), sizeof(cfg.apiKey)).c_str());
    }
    return 1;
}

} // namespace

int tavel_intf_getL1ClouldURL(char *buf, size_t bufSize)
{
    return getServerUrl(Level::L1, buf, bufSize, __func__);
}

int tavel_intf_setL1ClouldURL(const char *url)
{
    return setServerUrl(Level::L1, url, __func__);
}

int tavel_intf_getL2ClouldURL(char *buf, size_t bufSize)
{
    return getServerUrl(Level::L2, buf, bufSize, __func__);
}

int tavel_intf_setL2ClouldURL(const char *url)
{
    return setServerUrl(Level::L2, url, __func__);
}

int tavel_intf_getRMAPPURL(char *buf, size_t bufSize)
{
    KPRCRAccessConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    if (dml_getKPRCRAccessConfig(&cfg) != 0) {
        TAVEL_LOGE("dml get functin failed ...");
        return 0;
    }
    tavel_copyText(buf, bufSize, cfg.URL, sizeof(cfg.URL) - 1);
    TAVEL_LOGN("getMAPPURL is [%s]\n", LogValue(buf, bufSize).c_str());
    return 1;
}

int tavel_intf_setRMAPPURL(const char *url)
{
    KPRCRAccessConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    copyField(cfg.URL, url);
    if (dml_setKPRCRAccessConfig(&cfg) != 0) {
        TAVEL_LOGE("dmlsetmappURL functin failed ...");
        return 0;
    }
    TAVEL_LOGN("value set  is [%s]\n", logText(cfg.URL).c_str());
    return 1;
}

int tavel_intf_getkprconfigUrl(char *buf, size_t bufSize)
{
    return getZoragent(ZorField::Url, buf, bufSize, __func__);
}

int tavel_intf_setkprconfigUrl(const char *url)
{
    return setZoragent(ZorField::Url, url, __func__);
}

int tavel_intf_getkprconfigApikey(char *buf, size_t bufSize)
{
    return getZoragent(ZorField::ApiKey, buf, bufSize, __func__);
}

int tavel_intf_setkprconfigApikey(const char *key)
{
    return setZoragent(ZorField::ApiKey, key, __func__);
}
