// Agent state for the header and request tests: the real g_serverData from
// initAgentState(), under the binary's temporary TAVEL_ROOT.
#ifndef CURL_TEST_STATE_H
#define CURL_TEST_STATE_H

#include <string.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "main.h"
#include "tavel_curl.h"
#include "test_env.h"
#include "util.h"

namespace curltest
{

// initAgentState() allocates the heap fields; a second call would leak the
// first set, so the binary calls it once whoever gets here first.
inline void ensureAgentState()
{
    ASSERT_FALSE(tavelTestRoot().empty());
    ASSERT_STREQ(tavel_root(), tavelTestRoot().c_str()) << "TAVEL_ROOT must be in place before the state";
    if (g_serverData.mgmtUrl == nullptr) {
        initAgentState();
    }
    ASSERT_NE(g_serverData.mgmtUrl, nullptr);
}

// Empties every received value, keeping the storage the agent allocated.
inline void clearServerData()
{
    char **fields[] = {&g_serverData.mgmtUrl,      &g_serverData.cdpusername,    &g_serverData.cdppassword,
                       &g_serverData.operdesc,     &g_serverData.subnetdesc,     &g_serverData.tenantID,
                       &g_serverData.l1url,        &g_serverData.l2url,          &g_serverData.remotemappurl,
                       &g_serverData.kprconfigurl, &g_serverData.kprconfigapikey};
    for (char **f : fields) {
        if (*f != nullptr) {
            (*f)[0] = '\0';
        }
    }
    memset(g_serverData.countryCode, 0, sizeof(g_serverData.countryCode));
}

// Hands a line to the header callback in a buffer of exactly its length, as
// libcurl does (no terminator), so a sanitizer build catches any over-read.
inline size_t feedHeader(const std::string &line)
{
    std::unique_ptr<char[]> buf(new char[line.size()]);
    memcpy(buf.get(), line.data(), line.size());
    return header_handler(buf.get(), 1, line.size(), nullptr);
}

// Log text appended since the given size of the log.
inline std::string logSince(size_t mark)
{
    std::string log = tavelTestLog();
    return mark <= log.size() ? log.substr(mark) : log;
}

} // namespace curltest

#endif
