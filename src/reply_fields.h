/*
 * The values of the onboarding reply: one row per reply header, naming the
 * header, its type, how its value is cut out of the line and where it is
 * kept.  The header reader, the state reset, the ACS dump, the exit and the
 * tests all walk this table, so a field is added or changed in one place.
 */
#ifndef TAVEL_REPLY_FIELDS_H
#define TAVEL_REPLY_FIELDS_H

#include <stddef.h>

#include "main.h"
#include "tavel_curl.h"

enum class ReplyKind : unsigned char {
    Word,        /* first word after "name:", in a heap string */
    CloudWord,   /* the same; the value "NA" stands for none */
    RawText,     /* the raw bytes after "name: " up to the line's last byte */
    CountryCode, /* first word, at most three characters, in ServerData::countryCode */
    Timezone,    /* handed to the time-zone reader (g_timezoneData) */
};

struct ReplyField {
    const char *name; /* the header's name, matched exactly */
    int type;         /* HeaderType */
    ReplyKind kind;
    char *ServerData::*heap; /* the heap string of the kinds that keep one */
    bool freedAtExit;        /* released by exitTavel (the management account
                              * and the descriptions; the device leaves the
                              * rest to the end of the process) */
    const char *dumpLabel;   /* its line in the ACS dump; null: not shown */

    bool isHeap() const { return heap != nullptr; }
};

/* In the order the header types are numbered. */
inline constexpr ReplyField kReplyFields[] = {
    {"url", HDR_URL, ReplyKind::Word, &ServerData::mgmtUrl, true, "g_serverData.mgmtUrl "},
    {"name", HDR_NAME, ReplyKind::Word, &ServerData::cdpusername, true, "g_serverData.cdpusername "},
    {"pwd", HDR_PWD, ReplyKind::Word, &ServerData::cdppassword, true, nullptr},
    {"opdesc", HDR_OPDESC, ReplyKind::RawText, &ServerData::operdesc, true, "g_serverData.operdesc "},
    {"snetdesc", HDR_SNETDESC, ReplyKind::RawText, &ServerData::subnetdesc, true, "g_serverData.subnetdesc "},
    {"tenantid", HDR_TENANTID, ReplyKind::Word, &ServerData::tenantID, false, "g_serverData.tenantID "},
    {"timezone", HDR_TIMEZONE, ReplyKind::Timezone, nullptr, false, nullptr},
    {"countrycode", HDR_COUNTRYCODE, ReplyKind::CountryCode, nullptr, false, nullptr},
    {"l1url", HDR_L1URL, ReplyKind::CloudWord, &ServerData::l1url, false, nullptr},
    {"l2url", HDR_L2URL, ReplyKind::CloudWord, &ServerData::l2url, false, nullptr},
    {"remotemappurl", HDR_REMOTEMAPPURL, ReplyKind::CloudWord, &ServerData::remotemappurl, false, nullptr},
    {"kprconfigurl", HDR_KPRCONFIGURL, ReplyKind::CloudWord, &ServerData::kprconfigurl, false, nullptr},
    {"kprconfigapikey", HDR_KPRCONFIGAPIKEY, ReplyKind::CloudWord, &ServerData::kprconfigapikey, false,
     nullptr},
};

constexpr bool replyFieldsInTypeOrder()
{
    for (size_t i = 0; i < sizeof(kReplyFields) / sizeof(kReplyFields[0]); ++i) {
        if (kReplyFields[i].type != static_cast<int>(i) + 1) {
            return false;
        }
    }
    return true;
}
static_assert(replyFieldsInTypeOrder(), "kReplyFields is indexed by header type");

/* The row of a header type, or null for HDR_NONE and unknown types. */
inline const ReplyField *replyFieldOf(int type)
{
    constexpr int count = static_cast<int>(sizeof(kReplyFields) / sizeof(kReplyFields[0]));
    return type >= 1 && type <= count ? &kReplyFields[type - 1] : nullptr;
}

/* Calls fn(row, field) for every heap string of the record. */
template <typename Fn> void forEachHeapField(ServerData &data, Fn fn)
{
    for (const ReplyField &f : kReplyFields) {
        if (f.isHeap()) {
            fn(f, data.*f.heap);
        }
    }
}

#endif
