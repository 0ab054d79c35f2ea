/*
 * Device data-model layer (dml_*) as the agent sees it.
 *
 * The records below are exchanged with the platform byte for byte, so their
 * sizes and field offsets are fixed (the agent asserts them in
 * src/platform_layout.cpp).  A real platform supplies its own implementation
 * of these functions; the project's stand-in keeps the data model in a text
 * file (see platform/dml).
 *
 * Rules for every operation below unless its comment says otherwise:
 * - Returns 0 on success, non-zero on an error (the data model cannot be
 *   read or written, a NULL argument).  On an error the output record or
 *   buffer is left untouched.
 * - Absent is not an error: a parameter the device does not hold reads as
 *   the empty text (0 for a number) and the call returns 0.
 * - Text outputs are cut to their field and always NUL-terminated within it;
 *   the bytes after the terminator are zero.  Texts are read back exactly as
 *   written (any byte but NUL, CR and LF included), up to the field's size.
 * - Outputs are caller-owned records; nothing returned needs freeing.
 * - Thread-safe: the agent calls from three threads at once.  A call may
 *   block on storage (file lock, flash write) but never waits on the bus or
 *   the network.
 * - A value written is visible to the next read in any thread or process,
 *   and survives the process (it is the device's configuration).
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

/* Called once, first of all, before any other dml_ call, from one thread;
 * the agent passes 2.  0 when the data model is usable. */
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

/* The CA certificate path.  Never NULL: empty when absent and on an error
 * (the one operation that cannot tell them apart).  The text is owned by
 * the layer and stays valid until the calling thread calls this function
 * again; another thread's calls do not change it. */
const char *dml_getHIECertifcatePath(void);

/* Fills only isCCSyncRequired (1 or 0) and leaves the reserved bytes as the
 * caller set them. */
int dml_getModelCapability(ModelCapability *cap);
/* Absent: groupCount 0 and groups NULL.  The arrays belong to the layer:
 * the caller never frees them, and they stay valid (unchanged) at least
 * until a later call of this function returns a different list. */
int dml_getSupportedCountryList(SupportedCountryList *list);

/* The management-server account, all three fields (the password too). */
int dml_getManagementServerInfo(ManagementServerInfo *info);
/* Stores all three fields exactly as given, empty ones included. */
int dml_setManagementServerInfo(const ManagementServerInfo *info);
/* The backup (default) account; read only. */
int dml_getDefaultManagmentInfo(ManagementServerInfo *info);

/* The agent object: enable is 1 when the stored number is non-zero, else 0. */
int dml_getOnBoardingServerInfo(OnBoardingServerInfo *info);
/* The setters below change only their named parameters. */
int dml_setOnBoardStatus(const char *status);
int dml_setOpSubnetDesc(const char *opDesc, const char *subnetDesc);

/* Fill DML_WORKMODE_LEN bytes. */
int dml_getWorkMode(char mode[DML_WORKMODE_LEN]);
int dml_getWorkRole(char role[DML_WORKMODE_LEN]);

/* Fills serialNumber, operatorId and country; the reserved bytes are the
 * platform's to use or leave. */
int dml_getNodeInfo(NodeInfo *info);

/* Fills DML_COUNTRYID_LEN bytes; a longer stored code is cut. */
int dml_getCountryID(char code[DML_COUNTRYID_LEN]);
int dml_setCountryID(const char *code);

/* Fills DML_TIMEZONE_LEN bytes.  dml_setTimeZone stores the value and the
 * zone name as two parameters. */
int dml_getTimeZone(char tz[DML_TIMEZONE_LEN]);
int dml_setTimeZone(const char *tz, const char *zoneName);

/* Cloud records.  The getters fill every field but serverData (left as the
 * caller set it).  The setters store each text field that arrives non-empty
 * and leave a field that arrives empty unchanged, so two calls that each
 * carry one field both survive; the flags byte is stored as given. */
int dml_getKPRCConfigL1Server(KPRCConfigServer *cfg);
int dml_setKPRCConfigL1Server(const KPRCConfigServer *cfg);
int dml_getKPRCConfigL2Server(KPRCConfigServer *cfg);
int dml_setKPRCConfigL2Server(const KPRCConfigServer *cfg);
int dml_getKPRCRAccessConfig(KPRCRAccessConfig *cfg);
int dml_setKPRCRAccessConfig(const KPRCRAccessConfig *cfg);
int dml_getKPRCZoragentConfig(KPRCZoragentConfig *cfg);
int dml_setKPRCZoragentConfig(const KPRCZoragentConfig *cfg);

#ifdef __cplusplus
}
#endif

#endif
