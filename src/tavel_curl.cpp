// Onboarding-server client: the GET of the onboarding data, the reader of its
// reply headers and the PUT of the status report.
//
// The reply comes from a server we do not control, so nothing here trusts it:
// header lines are not NUL-terminated and are only ever read within their
// length, and every copy and print is bounded.
#include <errno.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include "agent_output.h"
#include "logtext.h"
#include "platform_log.h"
#include "reply_fields.h"
#include "tavel_curl.h"
#include "util.h"

namespace
{

struct CurlEasyDeleter {
    void operator()(CURL *h) const { curl_easy_cleanup(h); }
};
struct CurlSlistDeleter {
    void operator()(curl_slist *l) const { curl_slist_free_all(l); }
};
// The buffer record itself lives on the caller's stack; only its text is ours
// to free (the write callback may have replaced or dropped it).
struct BodyDeleter {
    void operator()(PollRespBuffer *b) const
    {
        free(b->data);
        b->data = nullptr;
        b->size = 0;
    }
};
using CurlPtr = std::unique_ptr<CURL, CurlEasyDeleter>;
using SlistPtr = std::unique_ptr<curl_slist, CurlSlistDeleter>;
using BodyPtr = std::unique_ptr<PollRespBuffer, BodyDeleter>;

// A 50 MB reply body would become a 50 MB log record and push everything else
// out of the device's small log; the dump keeps the head of the body, which is
// where a server puts its error text, and states the full length.
constexpr size_t kBodyDumpMax = 4096;

constexpr int kHeaderLineSize = 256;

// The reply-header trace goes to the device log; a server sending thousands
// of header lines must not fill it.  Like the body dump, each reply's trace
// keeps its first lines, up to this many bytes, and then states what it left.
constexpr size_t kHeaderTraceMax = 4096;

struct HeaderTrace {
    size_t bytes = 0;
    size_t skippedLines = 0;
    size_t skippedBytes = 0;
    bool current = true; // whether the header being handled is traced
};
HeaderTrace g_headerTrace;

// Identification texts sent with both requests; empty when the platform
// cannot supply them.
struct NodeIds {
    char sn[64] = {};
    char operatorId[128] = {};
    char country[128] = {};
};

void readNodeIds(NodeIds &ids)
{
    NodeInfo node;
    memset(&node, 0, sizeof(node));
    if (dml_getNodeInfo(&node) == 0) {
        tavel_copyText(ids.sn, sizeof(ids.sn), node.serialNumber, sizeof(ids.sn) - 1);
        tavel_copyText(ids.operatorId, sizeof(ids.operatorId), node.operatorId, sizeof(ids.operatorId) - 1);
        tavel_copyText(ids.country, sizeof(ids.country), node.country, sizeof(ids.country) - 1);
    } else {
        TAVEL_LOGE("get of OID_TAVELAGENT failed\n");
    }
}

// Lines longer than the buffer are cut at 254 characters, like the device
// firmware always did; the server must cope with that.
void appendHeader(SlistPtr &list, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void appendHeader(SlistPtr &list, const char *fmt, ...)
{
    char line[kHeaderLineSize];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, kHeaderLineSize - 1, fmt, ap);
    va_end(ap);
    // On failure libcurl leaves the old list intact and returns null.
    curl_slist *head = curl_slist_append(list.get(), line);
    if (head != nullptr) {
        static_cast<void>(list.release()); // now owned through head
        list.reset(head);
    }
}

// The identification texts of a request and its handle (null when libcurl
// cannot make one).
CurlPtr openRequest(NodeIds &ids)
{
    readNodeIds(ids);
    return CurlPtr(curl_easy_init());
}

void appendLine(SlistPtr &list, const char *line)
{
    curl_slist *head = curl_slist_append(list.get(), line);
    if (head != nullptr) {
        static_cast<void>(list.release()); // now owned through head
        list.reset(head);
    }
}

void setCommonStart(CURL *h, const HttpInfo *info)
{
    curl_easy_setopt(h, CURLOPT_URL, info->url);
    curl_easy_setopt(h, CURLOPT_LOCALPORT, static_cast<long>(TAVEL_LOCAL_PORT));
    curl_easy_setopt(h, CURLOPT_LOCALPORTRANGE, static_cast<long>(TAVEL_LOCAL_PORT_RANGE));
}

void setAuthAndSocket(CURL *h, HttpInfo *info)
{
    if (info->authEnabled != 0) {
        curl_easy_setopt(h, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_NONE));
        curl_easy_setopt(h, CURLOPT_PASSWORD, info->password);
        curl_easy_setopt(h, CURLOPT_USERNAME, info->userName);
    }
    curl_easy_setopt(h, CURLOPT_SOCKOPTFUNCTION, curlSockOptCallback);
    curl_easy_setopt(h, CURLOPT_SOCKOPTDATA, info);
}

size_t bodyWriteThunk(char *ptr, size_t size, size_t nmemb, void *userdata)
{
    return pollRespWriteCallback(ptr, size, nmemb, static_cast<PollRespBuffer *>(userdata));
}

// The escaped copy (16 KiB) lives on the heap, given back before the wait: on
// the stack it would leave that many stack pages dirty for the whole run.
void dumpBody(const PollRespBuffer &buf)
{
    TAVEL_LOGD("Data From Server START:#########################\n");
    const char *text = tavel_text(buf.data);
    const auto shown =
        std::make_unique<LogText<kBodyDumpMax>>(text, buf.size < kBodyDumpMax ? buf.size : kBodyDumpMax);
    if (buf.size <= kBodyDumpMax) {
        TAVEL_LOGD("%s\n", shown->c_str());
    } else {
        TAVEL_LOGD("%s ...[%zu bytes, first %zu logged]\n", shown->c_str(), buf.size, kBodyDumpMax);
    }
    TAVEL_LOGD("Data From Server END:#########################\n");
}

// Smallest power of two holding len bytes; len itself past the top bit.
size_t storageFor(size_t len)
{
    size_t cap = 1;
    while (cap < len && cap <= SIZE_MAX / 2) {
        cap *= 2;
    }
    return cap < len ? len : cap;
}

bool inStatusRange(long code)
{
    return code >= 110 && code <= 503;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// The first word after "name:" (any white space before it skipped), within
// the n bytes of the line; a NUL ends the line as it would end a C string.
// Writes at most outMax characters and the terminator into out; out must hold
// outMax + 1 bytes.  A line that does not start with "name:" yields nothing.
void scanFirstWord(const char *line, size_t n, const char *name, char *out, size_t outMax)
{
    size_t nameLen = strlen(name);
    if (n <= nameLen || memcmp(line, name, nameLen) != 0 || line[nameLen] != ':') {
        return;
    }
    size_t i = nameLen + 1;
    while (i < n && line[i] != '\0' && isBlank(line[i])) {
        ++i;
    }
    size_t len = 0;
    while (i + len < n && len < outMax && line[i + len] != '\0' && !isBlank(line[i + len])) {
        ++len;
    }
    memcpy(out, line + i, len);
    out[len] = '\0';
}

int parseHeaderType(const char *line, size_t n)
{
    char head[kHeaderLineSize] = {};
    size_t copyLen = n < sizeof(head) - 1 ? n : sizeof(head) - 1;
    memcpy(head, line, copyLen);

    // First token split at colons, as strtok would take it.
    const char *tok = head;
    while (*tok == ':') {
        ++tok;
    }
    size_t tokLen = strcspn(tok, ":");
    if (tokLen == 0) {
        return HDR_NONE;
    }
    std::string_view token(tok, tokLen);
    for (const ReplyField &f : kReplyFields) {
        if (token == f.name) {
            return f.type;
        }
    }
    return HDR_NONE;
}

// The escaped copy is on the heap: on the stack, under a header callback deep
// in libcurl's own stack, it made the deepest frame of the run, and stack
// pages stay dirty for the days the agent may then wait.
void traceHeader(int type, const char *line, size_t n)
{
    const ReplyField *f = replyFieldOf(type);
    if (f != nullptr && tavel_redacting() != 0 && tavel_isSecretHeader(f->name, strlen(f->name)) != 0) {
        log_log(5, "getHeaderType", __LINE__, " header value is %s: ***\n", f->name);
    } else {
        const auto shown = std::make_unique<LogText<kHeaderTraceMax>>(line, n);
        log_log(5, "getHeaderType", __LINE__, " header value is %s\n", shown->c_str());
    }
}

int headerTypeOf(const char *line, size_t n)
{
    int type = parseHeaderType(line, n);
    if (g_headerTrace.current && std::string_view(line, n).find("pwd") == std::string_view::npos) {
        traceHeader(type, line, n);
    }
    return type;
}

// libcurl's verbose trace as libcurl itself prints it when no debug function
// is set (a two-character mark, then the data as given; no data or TLS
// records), except that the value of a secret header becomes "***".
int redactedTrace(CURL * /*h*/, curl_infotype type, char *data, size_t size, void * /*userdata*/)
{
    static const char kMarks[][3] = {"* ", "< ", "> "};
    if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT) {
        return 0;
    }
    fwrite(kMarks[type], 1, 2, stderr);
    if (type == CURLINFO_TEXT) {
        fwrite(data, 1, size, stderr);
        return 0;
    }
    // A header block may hold many lines (the request's), each ending in LF.
    size_t pos = 0;
    while (pos < size) {
        const char *start = data + pos;
        const void *lf = memchr(start, '\n', size - pos);
        size_t len =
            lf != nullptr ? static_cast<size_t>(static_cast<const char *>(lf) - start) + 1 : size - pos;
        const void *colon = memchr(start, ':', len);
        size_t nameLen = colon != nullptr ? static_cast<size_t>(static_cast<const char *>(colon) - start) : 0;
        if (colon != nullptr && tavel_isSecretHeader(start, nameLen) != 0) {
            fwrite(start, 1, nameLen, stderr);
            fputs(": ***", stderr);
            // Keep the line's own ending (CR LF).
            size_t end = len;
            while (end > nameLen && (start[end - 1] == '\n' || start[end - 1] == '\r')) {
                --end;
            }
            fwrite(start + end, 1, len - end, stderr);
        } else {
            fwrite(start, 1, len, stderr);
        }
        pos += len;
    }
    return 0;
}

// What differs between the GET and the PUT once the request is set up.
struct TransferRules {
    const char *name; // shown on standard output and in the log
    // Level of the failure and status lines; checked like the log functions.
    void (*logFailure)(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
    int noResponseCode;    // result when no status code can be read
    bool logNotSuccessful; // the GET also notes statuses of 400 and above
    bool releaseAgentLock; // see httpPutToServer
};

// Called by libcurl at least once a second while a transfer runs, also while
// it connects or waits for an answer: a stop ends the transfer there.
int abortOnStop(void * /*clientp*/, curl_off_t /*dltotal*/, curl_off_t /*dlnow*/, curl_off_t /*ultotal*/,
                curl_off_t /*ulnow*/)
{
    return tavel_stopRequested();
}

#if LIBCURL_VERSION_NUM >= 0x075000
// Called once the connection is up (TLS included), before the request goes
// out: the firewall commands started at start-up run during the set-up, and
// no request is sent before they are done.
int firewallReady(void * /*clientp*/, char * /*primaryIp*/, char * /*localIp*/, int /*primaryPort*/,
                  int /*localPort*/)
{
    tavel_awaitFirewallRules();
    // A stop ended the commands early: the rules may be missing, so nothing is sent.
    return tavel_stopRequested() != 0 ? CURL_PREREQFUNC_ABORT : CURL_PREREQFUNC_OK;
}
#endif

// Performs the transfer and maps its outcome to the request's result code.
int performTransfer(CURL *h, const TransferRules &r)
{
    printf("%s before curl_easy_perform\n", r.name);
    fflush(stdout);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, abortOnStop);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    // A libcurl older than 7.80 has no such hook: the rules are awaited first.
#if LIBCURL_VERSION_NUM >= 0x075000
    if (curl_easy_setopt(h, CURLOPT_PREREQFUNCTION, firewallReady) != CURLE_OK)
#endif
    {
        tavel_awaitFirewallRules();
    }
    CURLcode rc;
    if (r.releaseAgentLock) {
        AgentLockRelease released;
        tavel_transferBegin();
        rc = curl_easy_perform(h);
        tavel_transferEnd();
    } else {
        tavel_transferBegin();
        rc = curl_easy_perform(h);
        tavel_transferEnd();
    }
    // A stop that ended the transfer is carried out before its outcome
    // could be taken for the server's.
    tavel_stopPoint();
    printf("%s after curl_easy_perform\n", r.name);
    fflush(stdout);
    TAVEL_LOGD_AS(r.name, "after curl_easy_perform\n");

    long code = 0;
    if (rc != CURLE_OK) {
        long osErrno = 0;
        if (curl_easy_getinfo(h, CURLINFO_OS_ERRNO, &osErrno) != CURLE_OK) {
            osErrno = 0;
        }
        TAVEL_LOG_AS(r.logFailure, r.name, "curl_easy_perform() failed: %s errno : %ld\n",
                     curl_easy_strerror(rc), osErrno);
        return TAVEL_RC_TRANSFER_FAILED;
    }
    if (curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK) {
        TAVEL_LOG_AS(r.logFailure, r.name, "curl_easy_getinfo() error in receiving response code %ld\n", 0L);
        return r.noResponseCode;
    }
    if (r.logNotSuccessful && code >= 400) {
        TAVEL_LOGD_AS(r.name, "HTTPS Get Url Not Successful Res : %ld\n", code);
    }
    int result = TAVEL_RC_BAD_STATUS;
    if (inStatusRange(code)) {
        TAVEL_LOG_AS(r.logFailure, r.name, "HTTPS Get Url:server returned Errorcode : %ld\n", code);
        result = static_cast<int>(code);
    }
    TAVEL_LOGD_AS(r.name, "HTTPS Response :%ld\n", code);
    return result;
}

} // namespace

int get_https_cacert_file_status(const char *path)
{
    if (access(path, F_OK) == 0) {
        return 1;
    }
    if (errno == ENOENT) {
        TAVEL_LOGD("Tavel Verifed Certificate not exist\n");
    } else if (errno == EACCES) {
        TAVEL_LOGD("Tavel Verifed Certificate not accessible\n");
    } else {
        TAVEL_LOGD("Tavel verified Certificate accessible error\n");
    }
    return 0;
}

size_t pollRespWriteCallback(const char *ptr, size_t size, size_t nmemb, PollRespBuffer *buf)
{
    size_t n = size * nmemb;
    if (buf->size > SIZE_MAX - n - 1) {
        TAVEL_LOGE("not enough memory (realloc returned NULL)\n");
        free(buf->data);
        buf->data = nullptr;
        buf->size = 0;
        return 0;
    }
    // Storage grows in powers of two, so a large body costs a handful of
    // reallocations instead of one copy per received chunk.  The capacity
    // follows from size alone; the buffer starts at one byte.
    size_t need = buf->size + n + 1;
    if (buf->data == nullptr || need > storageFor(buf->size + 1)) {
        char *grown = static_cast<char *>(realloc(buf->data, storageFor(need)));
        if (grown == nullptr) {
            TAVEL_LOGE("not enough memory (realloc returned NULL)\n");
            free(buf->data);
            buf->data = nullptr;
            buf->size = 0;
            return 0;
        }
        buf->data = grown;
    }
    if (n > 0) {
        memcpy(buf->data + buf->size, ptr, n);
    }
    buf->size += n;
    buf->data[buf->size] = '\0';
    return n;
}

int curlSockOptCallback(void *clientp, curl_socket_t fd, curlsocktype purpose)
{
    const HttpInfo *info = static_cast<const HttpInfo *>(clientp);
    if (purpose == CURLSOCKTYPE_IPCXN && info != nullptr && info->mss > 0) {
        int mss = info->mss;
        if (setsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &mss, sizeof(mss)) != 0) {
            TAVEL_LOGE("Error While Set MSS\n");
        }
    }
    return CURL_SOCKOPT_OK;
}

int httpGetUrlFromServer(HttpInfo *info, const char *body)
{
    NodeIds ids;
    CurlPtr curl = openRequest(ids);
    if (!curl) {
        return TAVEL_RC_TRANSFER_FAILED;
    }
    CURL *h = curl.get();

    PollRespBuffer bodyBuf;
    bodyBuf.data = static_cast<char *>(calloc(1, 1));
    bodyBuf.size = 0;
    BodyPtr bodyOwner(&bodyBuf);

    bool https = strstr(info->url, "https") != nullptr;

    setCommonStart(h, info);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, info);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, header_handler);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, bodyWriteThunk);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &bodyBuf);
    if (info->timeout != 0) {
        curl_easy_setopt(h, CURLOPT_TIMEOUT, static_cast<long>(info->timeout));
    }
    if (https) {
        if (get_https_cacert_file_status(info->caCertPath) == 0) {
            return TAVEL_RC_NO_CERT;
        }
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(h, CURLOPT_CAINFO, info->caCertPath);
    }
    setAuthAndSocket(h, info);

    SlistPtr headers;
    appendLine(headers, "Content-Type: Application/json");
    char contentLength[64];
    snprintf(contentLength, sizeof(contentLength), "Content-Length:%zu", body != nullptr ? strlen(body) : 0);
    appendLine(headers, contentLength);
    appendHeader(headers, "x-api-key:%s", info->x_api_key);
    appendHeader(headers, "operatorid:%s", ids.operatorId);
    appendHeader(headers, "sn:%s", ids.sn);
    appendHeader(headers, "country:%s", ids.country);
    if (headers) {
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
    }

    static const TransferRules kGet = {"httpGetUrlFromServer", dmlLogDebug, TAVEL_RC_TRANSFER_FAILED, true,
                                       false};
    g_headerTrace = HeaderTrace();
    int result = performTransfer(h, kGet);
    if (g_headerTrace.skippedLines > 0) {
        TAVEL_LOGN("reply headers: %zu more lines (%zu bytes) not logged\n", g_headerTrace.skippedLines,
                   g_headerTrace.skippedBytes);
    }
    g_headerTrace = HeaderTrace();
    dumpBody(bodyBuf);
    return result;
}

int httpPutToServer(HttpInfo *info)
{
    NodeIds ids;
    CurlPtr curl = openRequest(ids);
    if (!curl) {
        return TAVEL_RC_TRANSFER_FAILED;
    }
    CURL *h = curl.get();
    curl_easy_setopt(h, CURLOPT_VERBOSE, 1L);
    if (tavel_redacting() != 0) {
        curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, redactedTrace);
    }

    bool https = strstr(info->url, "https") != nullptr;

    setCommonStart(h, info);
    // The method is PUT but no body is sent: upload mode stays off.  The
    // old option name is kept on purpose and only its deprecation silenced.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    curl_easy_setopt(h, CURLOPT_PUT, 0L);
#pragma GCC diagnostic pop
    curl_easy_setopt(h, CURLOPT_UPLOAD, 0L);
    curl_easy_setopt(h, CURLOPT_TRANSFER_ENCODING, 0L);
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "PUT");
    if (info->timeout != 0) {
        curl_easy_setopt(h, CURLOPT_TIMEOUT, static_cast<long>(info->timeout));
    }
    // Deliberately inverted, as the device's agent does it: when the CA file
    // exists, the report goes out with peer verification OFF; when it is
    // missing, libcurl's own CA store decides whether the server is trusted.
    // Kept on purpose: turning verification on could stop reports to servers
    // the device reaches today.  The GET, which brings the account, always
    // verifies against the CA file.
    if (https && get_https_cacert_file_status(info->caCertPath) == 1) {
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    }
    setAuthAndSocket(h, info);

    const char *operdesc = tavel_text(g_serverData.operdesc);
    const char *subnetdesc = tavel_text(g_serverData.subnetdesc);
    SlistPtr headers;
    appendLine(headers, "Content-Type: Application/json");
    appendLine(headers, "Content-Length: 0");
    appendHeader(headers, "x-api-key: %s", info->x_api_key);
    appendHeader(headers, "operatorid: %s", ids.operatorId);
    appendHeader(headers, "sn: %s", ids.sn);
    appendHeader(headers, "country: %s", ids.country);
    appendHeader(headers, "snetdesc: %s", subnetdesc);
    appendHeader(headers, "opdesc: %s", operdesc);

    TAVEL_LOGD("httpPutToServer operdesc :%s", LogValue(operdesc).c_str());
    TAVEL_LOGD("httpPutToServer subnetdesc :%s\n", LogValue(subnetdesc).c_str());
    if (headers) {
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
    }

    // The upload has no time limit: a server that never answers must not hold
    // the other threads' steps back, so the agent lock is given up while the
    // transfer runs.  Nothing of the agent's state is read meanwhile.
    static const TransferRules kPut = {"httpPutToServer", dmlLogError, TAVEL_RC_NO_RESPONSE_CODE, false,
                                       true};
    int result = performTransfer(h, kPut);
    return result;
}

size_t header_handler(char *line, size_t size, size_t nmemb, void *userdata)
{
    (void)userdata;
    size_t n = size * nmemb;
    HeaderTrace &trace = g_headerTrace;
    // What a traced line costs the log: its text and the two records' heads.
    size_t cost = n + 64;
    trace.current = trace.bytes + cost <= kHeaderTraceMax;
    if (trace.current) {
        trace.bytes += cost;
        TAVEL_LOGN("Size %d nmemb: %d\n", static_cast<int>(size), static_cast<int>(nmemb));
    } else {
        trace.skippedLines += 1;
        trace.skippedBytes += n;
    }
    int type = headerTypeOf(line, n);
    setServerDataFromHeader(type, line, n);
    return n;
}

int tavel_headerTraced(void)
{
    return g_headerTrace.current ? 1 : 0;
}

int getHeaderType(const char *line)
{
    return headerTypeOf(line, strlen(line));
}

void setServerDataFromHeader(int type, const char *line, size_t n)
{
    const ReplyField *f = replyFieldOf(type);
    if (n < 2 || f == nullptr) {
        return;
    }
    if (f->kind == ReplyKind::Timezone) {
        handle_timezoneHeader(line, n);
        return;
    }
    if (f->kind == ReplyKind::CountryCode) {
        memset(g_serverData.countryCode, 0, sizeof(g_serverData.countryCode));
        scanFirstWord(line, n, f->name, g_serverData.countryCode, sizeof(g_serverData.countryCode) - 1);
        return;
    }
    char *&field = g_serverData.*f->heap;
    if (field == nullptr) {
        return;
    }
    char *grown = static_cast<char *>(realloc(field, n + 1));
    if (grown == nullptr) {
        // The old storage stays valid but its value is dropped: a stale
        // value from an earlier reply must not pass for this reply's.
        field[0] = '\0';
        return;
    }
    field = grown;
    memset(grown, 0, n + 1);

    if (f->kind == ReplyKind::RawText) {
        // Raw bytes after "name: " up to, not including, the last byte of the
        // line, so a CR of a CR LF ending stays in the value.
        size_t start = strlen(f->name) + 2;
        if (n > start + 1) {
            memcpy(grown, line + start, n - start - 1);
        }
        return;
    }
    scanFirstWord(line, n, f->name, grown, n);
    if (f->kind == ReplyKind::CloudWord && strcmp(grown, "NA") == 0) {
        grown[0] = '\0';
    }
}
