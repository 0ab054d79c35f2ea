// The record layouts the agent exchanges with its platform, byte for byte.
// They are asserted here, in the agent's own sources, rather than in the
// platform headers: a build against the device's real headers must fail the
// same way when a size or an offset differs.  The layouts are those of the
// 32-bit target; the rows holding pointers are checked on 32-bit targets
// only, the rest everywhere.
#include <cstddef>

#include "dml.h"
#include "hbus.h"

// dml.h
static_assert(sizeof(ManagementServerInfo) == 1537, "ManagementServerInfo layout");
static_assert(offsetof(ManagementServerInfo, Username) == 1025, "ManagementServerInfo layout");
static_assert(offsetof(ManagementServerInfo, Password) == 1281, "ManagementServerInfo layout");
static_assert(sizeof(OnBoardingServerInfo) == 2215, "OnBoardingServerInfo layout");
static_assert(offsetof(OnBoardingServerInfo, URL) == 1, "OnBoardingServerInfo layout");
static_assert(offsetof(OnBoardingServerInfo, onBoardStatus) == 1026, "OnBoardingServerInfo layout");
static_assert(offsetof(OnBoardingServerInfo, opDesc) == 1091, "OnBoardingServerInfo layout");
static_assert(offsetof(OnBoardingServerInfo, subnetDesc) == 1124, "OnBoardingServerInfo layout");
static_assert(offsetof(OnBoardingServerInfo, apiKey) == 1157, "OnBoardingServerInfo layout");
static_assert(offsetof(OnBoardingServerInfo, acsConnStatus) == 2182, "OnBoardingServerInfo layout");
static_assert(sizeof(NodeInfo) == 552, "NodeInfo layout");
static_assert(offsetof(NodeInfo, serialNumber) == 83, "NodeInfo layout");
static_assert(offsetof(NodeInfo, operatorId) == 472, "NodeInfo layout");
static_assert(offsetof(NodeInfo, country) == 505, "NodeInfo layout");
static_assert(sizeof(ModelCapability) == 68, "ModelCapability layout");
static_assert(offsetof(ModelCapability, isCCSyncRequired) == 66, "ModelCapability layout");
static_assert(sizeof(CountryEntry) == 69, "CountryEntry layout");
static_assert(offsetof(CountryEntry, code) == 64, "CountryEntry layout");
static_assert(offsetof(CountryGroup, countryCount) == 8, "CountryGroup layout");
static_assert(sizeof(void *) != 4 || sizeof(CountryGroup) == 16, "CountryGroup layout (32-bit)");
static_assert(sizeof(void *) != 4 || offsetof(CountryGroup, countries) == 12, "CountryGroup layout (32-bit)");
static_assert(sizeof(void *) != 4 || offsetof(SupportedCountryList, groups) == 4,
              "SupportedCountryList layout (32-bit)");
static_assert(sizeof(KPRCConfigServer) == 1793, "KPRCConfigServer layout");
static_assert(offsetof(KPRCConfigServer, URL) == 256, "KPRCConfigServer layout");
static_assert(offsetof(KPRCConfigServer, flags) == 1792, "KPRCConfigServer layout");
static_assert(sizeof(KPRCRAccessConfig) == 1024, "KPRCRAccessConfig layout");
static_assert(sizeof(KPRCZoragentConfig) == 2048, "KPRCZoragentConfig layout");
static_assert(offsetof(KPRCZoragentConfig, apiKey) == 1024, "KPRCZoragentConfig layout");

// hbus.h
static_assert(offsetof(hbusSignalEntry, member) == 64, "hbusSignalEntry layout");
static_assert(offsetof(hbusSignalEntry, handler) == 128, "hbusSignalEntry layout");
static_assert(sizeof(void *) != 4 || sizeof(hbusSignalEntry) == 136, "hbusSignalEntry layout (32-bit)");
static_assert(sizeof(void *) != 4 || offsetof(hbusSignalEntry, id) == 132, "hbusSignalEntry layout (32-bit)");
