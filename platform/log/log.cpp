// Stand-in for the platform log and the history-event log (platform_log.h).
// The data-model and bus stand-ins define their own log calls on top of it.
//
// With TAVEL_ROOT set, records are appended to files under it so tests and
// the demo can read them; otherwise they go to syslog as on a device without
// a log service of its own.  Each record is written with a single write() on
// an O_APPEND descriptor, so lines from several threads or processes never
// interleave.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "platform_log.h"
#include "vformat.h"

namespace
{

const char *rootDir()
{
    const char *root = getenv("TAVEL_ROOT");
    return (root != nullptr && root[0] != '\0') ? root : nullptr;
}

// mkdir -p for the directory part of path, without a shell.
void makeParents(const std::string &path)
{
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        std::string dir = path.substr(0, pos);
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            return;
        }
    }
}

void appendRecord(const char *file, const std::string &record)
{
    std::string path = std::string(rootDir()) + "/var/log/" + file;
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT) {
        makeParents(path);
        fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    }
    if (fd < 0) {
        return;
    }
    const char *p = record.data();
    size_t left = record.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    close(fd);
}

__attribute__((format(printf, 3, 0))) void emit(int priority, const char *word, const char *fmt, va_list ap)
{
    std::string msg = tavel::platform::vformat(fmt, ap);
    if (rootDir() == nullptr) {
        openlog("tavelAgent", LOG_PID | LOG_NDELAY, LOG_DAEMON);
        syslog(priority, "%s", msg.c_str());
        return;
    }
    std::string record = std::string(word) + " " + msg;
    if (record.empty() || record.back() != '\n') {
        record.push_back('\n');
    }
    appendRecord("tavel.log", record);
}

const char *levelWord(int level)
{
    switch (level) {
    case LOG_EMERG:
    case LOG_ALERT:
    case LOG_CRIT:
        return "fatal";
    case LOG_ERR:
        return "error";
    case LOG_WARNING:
    case LOG_NOTICE:
    case LOG_INFO:
        return "notice";
    default:
        return "debug";
    }
}

} // namespace

extern "C" {

void log_log(int level, const char * /*func*/, int /*line*/, const char *fmt, ...)
{
    int priority = level < LOG_EMERG ? LOG_EMERG : (level > LOG_DEBUG ? LOG_DEBUG : level);
    va_list ap;
    va_start(ap, fmt);
    emit(priority, levelWord(priority), fmt, ap);
    va_end(ap);
}

void event_log_log(int /*type*/, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string msg = tavel::platform::vformat(fmt, ap);
    va_end(ap);
    if (rootDir() == nullptr) {
        openlog("tavelAgent", LOG_PID | LOG_NDELAY, LOG_DAEMON);
        syslog(LOG_NOTICE, "history: %s", msg.c_str());
        return;
    }
    if (msg.empty() || msg.back() != '\n') {
        msg.push_back('\n');
    }
    appendRecord("history.log", msg);
}

} // extern "C"
