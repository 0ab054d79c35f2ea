/*
 * Device data-model layer (dml_*) as the agent sees it.
 *
 * The records below are exchanged with the platform byte for byte, so their
 * sizes and field offsets are fixed (the agent asserts them in
 * src/platform_layout.cpp).  A real platform supplies its own implementation
 * of these functions; the project's stand-in keeps the data model in a text
 * file (see platform/dml).
 *
 * Every operation returns 0 on success and non-zero on failure.  On failure
 * the output record or buffer is left untouched.  Text outputs are always
 * NUL-terminated within the stated size.
 */
#ifndef TAVEL_PLATFORM_DML_H
#define TAVEL_PLATFORM_DML_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes of the fixed text buffers some operations fill. */
#define DML_WORKMODE_LEN 33 /* dml_getWorkMode, dml_getWorkRole */
#define DML_COUNTRYID_LEN 4 /* dml_getCountryID: at most 3 characters */
#define DML_TIMEZONE_LEN 50 /* dml_getTimeZone: at most 49 characters */
#define DML_ONBOARDSTATUS_LEN 65
#define DML_DESC_LEN 33

typedef struct ManagementServerInfo {
    char URL[1025];
    char Username[256];
    char Password[256];
} ManagementServerInfo;

typedef struct OnBoardingServerInfo {
    uint8_t enable;
    char URL[1025];
    char onBoardStatus[65];
    char opDesc[33];
    char subnetDesc[33];
    char apiKey[1025];
    char acsConnStatus[33];
} OnBoardingServerInfo;

/* Only three texts are defined for the agent; the rest is the platform's. */
#define NODEINFO_SERIAL_OFFSET 83
#define NODEINFO_OPERATOR_OFFSET 472
#define NODEINFO_COUNTRY_OFFSET 505
typedef struct NodeInfo {
    char reserved0[NODEINFO_SERIAL_OFFSET];
    char serialNumber[64];
    char reserved1[NODEINFO_OPERATOR_OFFSET - NODEINFO_SERIAL_OFFSET - 64];
    char operatorId[NODEINFO_COUNTRY_OFFSET - NODEINFO_OPERATOR_OFFSET];
    char country[552 - NODEINFO_COUNTRY_OFFSET];
} NodeInfo;

typedef struct ModelCapability {
    uint8_t reserved[66];
    uint8_t isCCSyncRequired;
    uint8_t reserved1;
} ModelCapability;

typedef struct CountryEntry {
    char reserved[64];
    char code[5];
} CountryEntry;

typedef struct CountryGroup {
    int32_t reserved0;
    int32_t reserved1;
    int32_t countryCount;
    CountryEntry *countries;
} CountryGroup;

/* The platform owns the arrays; callers never free them. */
typedef struct SupportedCountryList {
    int32_t groupCount;
    CountryGroup *groups;
} SupportedCountryList;

typedef struct KPRCConfigServer {
    char serverData[256];
    char URL[1536];
    uint8_t flags;
} KPRCConfigServer;

typedef struct KPRCRAccessConfig {
    char URL[1024];
} KPRCRAccessConfig;

typedef struct KPRCZoragentConfig {
    char configURL[1024];
    char apiKey[1024];
} KPRCZoragentConfig;

int dml_init(int mode);

/* Optional: frees whatever the layer keeps between calls (the stand-in's
 * parse of its store) so that an idle caller holds no copy of the data
 * model; the next call reads the data model again.  Declared weak so that
 * the agent links against a platform without it: the agent calls it only
 * when it is linked (a null address means absent).  A platform that defines
 * it must define it in the same object file as its other dml_ functions, or
 * a static link would leave it out (a weak reference pulls in no archive
 * member). */
void dml_releaseCache(void) __attribute__((weak));

/* Optional, weak like dml_releaseCache: the layer's waits for its store (a
 * lock another process holds) end early, failing the call, whenever
 * cancelled() returns non-zero; the agent hands its stop test over once,
 * after dml_init.  cancelled must be safe to call from any thread. */
void dml_setWaitCancel(int (*cancelled)(void)) __attribute__((weak));

/* The CA certificate path; never NULL (empty when unknown).  The text stays
 * valid until the calling thread's next call of this function. */
const char *dml_getHIECertifcatePath(void);

int dml_getModelCapability(ModelCapability *cap);
int dml_getSupportedCountryList(SupportedCountryList *list);

int dml_getManagementServerInfo(ManagementServerInfo *info);
int dml_setManagementServerInfo(const ManagementServerInfo *info);
int dml_getDefaultManagmentInfo(ManagementServerInfo *info);

int dml_getOnBoardingServerInfo(OnBoardingServerInfo *info);
int dml_setOnBoardStatus(const char *status);
int dml_setOpSubnetDesc(const char *opDesc, const char *subnetDesc);

int dml_getWorkMode(char mode[DML_WORKMODE_LEN]);
int dml_getWorkRole(char role[DML_WORKMODE_LEN]);

int dml_getNodeInfo(NodeInfo *info);

int dml_getCountryID(char code[DML_COUNTRYID_LEN]);
int dml_setCountryID(const char *code);

int dml_getTimeZone(char tz[DML_TIMEZONE_LEN]);
int dml_setTimeZone(const char *tz, const char *zoneName);

int dml_getKPRCConfigL1Server(KPRCConfigServer *cfg);
int dml_setKPRCConfigL1Server(const KPRCConfigServer *cfg);
int dml_getKPRCConfigL2Server(KPRCConfigServer *cfg);
int dml_setKPRCConfigL2Server(const KPRCConfigServer *cfg);
int dml_getKPRCRAccessConfig(KPRCRAccessConfig *cfg);
int dml_setKPRCRAccessConfig(const KPRCRAccessConfig *cfg);
int dml_getKPRCZoragentConfig(KPRCZoragentConfig *cfg);
int dml_setKPRCZoragentConfig(const KPRCZoragentConfig *cfg);

/* Platform log at three levels; the message is a printf format. */
void dmlLogDebug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void dmlLogNotice(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void dmlLogError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif
