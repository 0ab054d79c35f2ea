// One function per input surface of the agent, called by the fuzz targets and
// by the unit tests' replay of fuzz/regressions.  Each returns false when an
// input breaks a rule the code promises; reads past an input's bytes are left
// to the address sanitizer, hence heap blocks of exactly the input's size.
// Paths follow the agent's root at the call (fuzzer's or unit tests' own).
#ifndef TAVEL_FUZZ_INPUTS_H
#define TAVEL_FUZZ_INPUTS_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dml.h"
#include "files.h"
#include "fuzz_common.h"
#include "main.h"
#include "reply_fields.h"
#include "store.h"
#include "tavel_curl.h"
#include "tavel_signal.h"
#include "util.h"

namespace tavel_fuzz
{

template <size_t N> bool terminated(const char (&field)[N])
{
    return strnlen(field, N) < N;
}

/* ---- log records ---- */

inline std::string platformLog()
{
    return DevicePath("/var/log/tavel.log").c_str();
}

inline off_t logSize()
{
    struct stat st;
    return stat(platformLog().c_str(), &st) == 0 ? st.st_size : 0;
}

// Everything the platform log gained since `from` is whole records: each line
// starts with a level word and holds no control byte, so no outside text
// began a record of its own or rewrote one on a terminal.
inline bool recordsWhole(off_t from)
{
    std::ifstream in(platformLog(), std::ios::binary);
    in.seekg(from);
    std::string added((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t start = 0;
    while (start < added.size()) {
        size_t end = added.find('\n', start);
        std::string_view line(added.data() + start, (end == std::string::npos ? added.size() : end) - start);
        bool level = false;
        for (std::string_view word : {"debug ", "notice ", "error ", "fatal "}) {
            level = level || line.substr(0, word.size()) == word;
        }
        bool control = std::any_of(line.begin(), line.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
        if (!level || control || end == std::string::npos) {
            return false;
        }
        start = end + 1;
    }
    return true;
}

/* ---- reply headers ---- */

// Values taken as the first word of a line never hold white space, and every
// stored text is still terminated (strlen under ASan).
inline bool serverDataSound()
{
    const char *blanks = " \t\r\n\v\f";
    bool sound = true;
    forEachHeapField(g_serverData, [&](const ReplyField &f, char *field) {
        // The descriptions are raw bytes; every other value is one word.
        bool raw = f.kind == ReplyKind::RawText;
        sound = sound && field != nullptr && (strlen(field) == 0 || raw || strpbrk(field, blanks) == nullptr);
    });
    if (!sound) {
        return false;
    }
    const TimezoneData &tz = g_timezoneData;
    return terminated(g_serverData.countryCode) && strpbrk(g_serverData.countryCode, blanks) == nullptr &&
           terminated(tz.timezone) && terminated(tz.cityname) && terminated(tz.errorcode);
}

inline bool feedHeaderLine(const uint8_t *data, size_t size, bool direct)
{
    ExactBuffer line(data, size);
    if (!direct) {
        return header_handler(line.data(), 1, line.size(), nullptr) == size;
    }
    // The same line through the public pieces: the type from a terminated
    // copy, then the value from the unterminated line.
    std::string copy(reinterpret_cast<const char *>(data), size);
    int type = getHeaderType(copy.c_str());
    if (type < HDR_NONE || type > HDR_KPRCONFIGAPIKEY) {
        return false;
    }
    if (type != HDR_NONE) {
        setServerDataFromHeader(type, line.data(), line.size());
    }
    return true;
}

// Input: one byte choosing the entry point (odd: getHeaderType and
// setServerDataFromHeader, even: header_handler), then the reply's header
// block, cut after each line feed as libcurl delivers it.
inline bool runHeaders(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return true;
    }
    bool direct = (data[0] & 1) != 0;
    ++data;
    --size;
    // Each input starts from the state of a fresh reply, as start-up leaves it.
    tavel_resetServerData();
    memset(&g_timezoneData, 0, sizeof(g_timezoneData));
    size_t start = 0;
    while (start < size) {
        const void *lf = memchr(data + start, '\n', size - start);
        size_t end = lf != nullptr ? static_cast<size_t>(static_cast<const uint8_t *>(lf) - data) + 1 : size;
        off_t logged = logSize();
        if (!feedHeaderLine(data + start, end - start, direct) || !serverDataSound() ||
            !recordsWhole(logged)) {
            return false;
        }
        start = end;
    }
    return true;
}

/* ---- the time-zone header ---- */

// Input: one header line, unterminated.
inline bool runTimezoneHeader(const uint8_t *data, size_t size)
{
    memset(&g_timezoneData, 0, sizeof(g_timezoneData));
    tavel_resetTimezoneHeaderState();

    ExactBuffer line(data, size);
    handle_timezoneHeader(line.data(), line.size());

    const TimezoneData &tz = g_timezoneData;
    if (!terminated(tz.timezone) || !terminated(tz.cityname) || !terminated(tz.errorcode) ||
        !terminated(g_timezoneCode) || !terminated(g_continent_city)) {
        return false;
    }
    // A header fills either the error word or the zone, never both.
    return tz.errorcode[0] == '\0' || (tz.timezone[0] == '\0' && tz.cityname[0] == '\0');
}

/* ---- the mapping file ---- */

constexpr size_t kMappingLineMax = 499; // what the split's callers guarantee
constexpr size_t kZoneSize = 50;        // g_timezone and its callers' buffers
constexpr size_t kZoneNameSize = 52;    // the callers' zone-name buffers
constexpr int kMappingCmdSize = 500;    // the callers' mapping-line buffers

// The split on a terminated copy held in a block of exactly its size, with
// outputs of exactly the callers' sizes.
inline bool splitMappingLine(const char *text, size_t len)
{
    std::unique_ptr<char[]> line(new char[len + 1]);
    memcpy(line.get(), text, len);
    line[len] = '\0';
    std::unique_ptr<char[]> zone(new char[kZoneSize]);
    std::unique_ptr<char[]> name(new char[kZoneNameSize]);
    memset(zone.get(), 'Z', kZoneSize);
    memset(name.get(), 'N', kZoneNameSize);
    gettimezoneandzonename(line.get(), zone.get(), name.get());
    return strnlen(zone.get(), kZoneSize) < kZoneSize && strnlen(name.get(), kZoneNameSize) < kZoneNameSize &&
           strchr(name.get(), '"') == nullptr;
}

// Input: code '\n' city '\n' mapping-file text.  The split also runs on the
// input as a whole, as one line of at most 499 characters.
inline bool runTimezoneMapping(const uint8_t *data, size_t size)
{
    const char *text = reinterpret_cast<const char *>(data);
    if (!splitMappingLine(text, strnlen(text, size < kMappingLineMax ? size : kMappingLineMax))) {
        return false;
    }
    const uint8_t *end = data + size;
    const uint8_t *codeEnd = static_cast<const uint8_t *>(memchr(data, '\n', size));
    if (codeEnd == nullptr) {
        return true;
    }
    const uint8_t *city = codeEnd + 1;
    const uint8_t *cityEnd =
        static_cast<const uint8_t *>(memchr(city, '\n', static_cast<size_t>(end - city)));
    if (cityEnd == nullptr) {
        return true;
    }
    memset(&g_timezoneData, 0, sizeof(g_timezoneData));
    TimezoneData &tz = g_timezoneData;
    tavel_copyText(tz.timezone, sizeof(tz.timezone), text, static_cast<size_t>(codeEnd - data));
    tavel_copyText(tz.cityname, sizeof(tz.cityname), reinterpret_cast<const char *>(city),
                   static_cast<size_t>(cityEnd - city));
    const uint8_t *file = cityEnd + 1;
    if (tavel_makeDirs("/usr/configs") != 0 ||
        !writeFile(DevicePath(TAVEL_TIMEZONE_MAPPING_FILE).c_str(), file, static_cast<size_t>(end - file))) {
        abort(); // the device root itself is broken: no input is to blame
    }

    std::unique_ptr<char[]> cmd(new char[kMappingCmdSize]);
    memset(cmd.get(), 'C', kMappingCmdSize);
    if (gettimezonecmd(cmd.get(), kMappingCmdSize) != 0) {
        return true;
    }
    size_t len = strnlen(cmd.get(), kMappingCmdSize);
    if (len >= static_cast<size_t>(kMappingCmdSize) || strstr(cmd.get(), tz.timezone) == nullptr ||
        strstr(cmd.get(), tz.cityname) == nullptr) {
        return false;
    }
    // The selected line goes on to the split, as the agent does with it.
    return splitMappingLine(cmd.get(), len);
}

/* ---- bus signals and debug commands ---- */

inline bool timezoneClean()
{
    // Nothing may linger behind the terminator of a received zone.
    const char *end = g_timezone + sizeof(g_timezone);
    const char *nul = static_cast<const char *>(memchr(g_timezone, '\0', sizeof(g_timezone)));
    return nul != nullptr && std::all_of(nul, end, [](char c) { return c == '\0'; });
}

// Input: one byte selecting the handler (modulo 5: debug command as given,
// debug command padded to its one accepted length, bootstrap status, sync
// message, time zone), then the payload.
inline bool runSignals(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return true;
    }
    // With no status upload pending the bootstrap handler returns before any
    // request is made: this must never reach the network.
    tavel_resetOnboardingState();
    tavel_resetRetryState();
    memset(g_timezone, 0, sizeof(g_timezone));

    using Handler = void (*)(void *, void *, const void *, uint32_t);
    static const Handler handlers[] = {tavel_processDbgCmdSignal, tavel_processDbgCmdSignal,
                                       tavel_TR69BootstrapStatusSignal, tavel_processSyncMgrSignal,
                                       tavel_handleNTPTimeZoneUpdateSignal};
    const uint8_t selector = data[0];
    std::vector<uint8_t> bytes(data + 1, data + size);
    if (selector % 5 == 1) {
        // The input in front, the rest filled with one byte, so unterminated
        // module names and command lines come up as often as terminated ones.
        bytes.resize(TAVEL_DBG_PAYLOAD_LEN, static_cast<uint8_t>(selector / 5 % 2 ? 'x' : 0));
    }
    ExactBuffer block(bytes.data(), bytes.size());
    off_t logged = logSize();
    handlers[selector % 5](nullptr, nullptr, block.data(), static_cast<uint32_t>(block.size()));
    const bool ok = (selector % 5 != 4 || timezoneClean()) && recordsWhole(logged);
    if (g_tavelCtrl.statusUpdatePending != 0 || g_statusRetryPending != 0) {
        abort(); // a status upload was started: stop before any request
    }
    return ok;
}

/* ---- the data-model store ---- */

// A change set drawn from the file itself: rewrite the first parameter with
// the decoded value of the last (and once more, which must be ignored), drop
// the second, add a fixed one.  A set and a remove of the same name are not
// combined: the store gives no rule for that pair.
inline std::vector<tavel::dml::Change> storeChangesFor(const std::vector<tavel::dml::Param> &params)
{
    std::vector<tavel::dml::Change> changes;
    const std::string fixed = "Device.X_TAVEL_Agent.Enable";
    if (!params.empty()) {
        std::string first(params.front().name);
        changes.push_back(tavel::dml::Change{first, tavel::dml::decodeValue(params.back().raw), false});
        changes.push_back(tavel::dml::Change{first, "ignored", false});
        if (params.size() > 1 && params[1].name != first && params[1].name != fixed) {
            changes.push_back(tavel::dml::Change{std::string(params[1].name), std::string(), true});
        }
    }
    changes.push_back(tavel::dml::Change{fixed, "1\n\\x\t", false});
    return changes;
}

inline bool storeSound(const tavel::dml::Store &store, const std::string &renderPath)
{
    std::vector<tavel::dml::Param> params = store.params();
    for (const tavel::dml::Param &p : params) {
        std::string decoded = tavel::dml::decodeValue(p.raw);
        if (!tavel::dml::isValidName(p.name) || !store.has(p.name) ||
            tavel::dml::decodeValue(tavel::dml::encodeValue(decoded)) != decoded) {
            return false;
        }
        (void)store.get(p.name);
    }

    // With no change the file comes back line for line.
    const std::string &text = store.contents();
    std::string expected = text.empty() || text.back() == '\n' ? text : text + "\n";
    if (store.render(std::vector<tavel::dml::Change>()) != expected) {
        return false;
    }

    // A rendered file read back yields the changed values; the first change
    // naming a parameter decides its fate.
    std::vector<tavel::dml::Change> changes = storeChangesFor(params);
    std::string next = store.render(changes);
    if (!writeFile(renderPath, reinterpret_cast<const uint8_t *>(next.data()), next.size())) {
        abort();
    }
    tavel::dml::Store reread;
    std::string error;
    if (!reread.load(renderPath, &error)) {
        return false;
    }
    // The parse an update keeps must be the parse of the file it wrote.
    tavel::dml::Store adopted = store;
    const tavel::dml::Store::Plan plan = adopted.plan(changes);
    size_t appendStart = 0;
    std::string written = adopted.render(plan, &appendStart);
    adopted.adopt(plan, written, appendStart);
    std::vector<tavel::dml::Param> want = reread.params(), got = adopted.params();
    if (adopted.contents() != next || got.size() != want.size()) {
        return false;
    }
    for (size_t i = 0; i < want.size(); ++i) {
        if (got[i].name != want[i].name || got[i].raw != want[i].raw ||
            adopted.get(want[i].name) != reread.get(want[i].name)) {
            return false;
        }
    }
    for (size_t i = 0; i < changes.size(); ++i) {
        const tavel::dml::Change &c = changes[i];
        bool shadowed = false;
        for (size_t j = 0; j < i; ++j) {
            shadowed = shadowed || changes[j].name == c.name;
        }
        if (!shadowed && (c.remove ? reread.has(c.name) : reread.get(c.name) != c.value)) {
            return false;
        }
    }
    return true;
}

// The getters promise terminated texts within their fields, and a country
// list of non-empty groups of non-empty codes.  The other getters share the
// same bounded copy, whose cuts test_dml.cpp checks.
inline bool gettersSound()
{
    OnBoardingServerInfo ob;
    memset(&ob, 0x5a, sizeof(ob));
    if (dml_getOnBoardingServerInfo(&ob) == 0 &&
        !(terminated(ob.URL) && terminated(ob.onBoardStatus) && terminated(ob.opDesc) &&
          terminated(ob.subnetDesc) && terminated(ob.apiKey) && terminated(ob.acsConnStatus))) {
        return false;
    }
    SupportedCountryList list;
    memset(&list, 0, sizeof(list));
    if (dml_getSupportedCountryList(&list) == 0) {
        if (list.groupCount < 0 || (list.groupCount > 0) != (list.groups != nullptr)) {
            return false;
        }
        for (int32_t g = 0; g < list.groupCount; ++g) {
            const CountryGroup &group = list.groups[g];
            if (group.countryCount <= 0 || group.countries == nullptr) {
                return false;
            }
            for (int32_t c = 0; c < group.countryCount; ++c) {
                if (!terminated(group.countries[c].code) || group.countries[c].code[0] == '\0') {
                    return false;
                }
            }
        }
    }
    ManagementServerInfo ms;
    memset(&ms, 0x5a, sizeof(ms));
    return dml_getManagementServerInfo(&ms) != 0 ||
           (terminated(ms.URL) && terminated(ms.Username) && terminated(ms.Password));
}

// Input: the whole store file.
inline bool runStore(const uint8_t *data, size_t size)
{
    if (tavel_makeDirs("/flash/dml") != 0 || !writeFile(tavel::dml::storePath(), data, size)) {
        abort();
    }
    tavel::dml::Store store;
    std::string error;
    if (!store.load(&error) ||
        store.contents() != std::string_view(reinterpret_cast<const char *>(data), size)) {
        return false;
    }
    return storeSound(store, std::string(tavel_root()) + "/rendered.conf") && gettersSound();
}

} // namespace tavel_fuzz

// The libFuzzer entry points of one target: a private device root, the
// agent's start-up state when the surface needs it, debug output silenced.
#define TAVEL_FUZZ_TARGET(run, withAgentState, quiet)                                                        \
    extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)                                   \
    {                                                                                                        \
        tavel_fuzz::initRoot();                                                                              \
        if (quiet) {                                                                                         \
            tavel_fuzz::silenceStdout();                                                                     \
        }                                                                                                    \
        if (withAgentState) {                                                                                \
            initAgentState();                                                                                \
        }                                                                                                    \
        return 0;                                                                                            \
    }                                                                                                        \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)                                  \
    {                                                                                                        \
        tavel_fuzz::boundLogs();                                                                             \
        if (!tavel_fuzz::run(data, size)) {                                                                  \
            abort();                                                                                         \
        }                                                                                                    \
        return 0;                                                                                            \
    }

#endif
