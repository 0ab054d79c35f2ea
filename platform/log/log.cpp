// Stand-in for the platform log and the history-event log (platform_log.h).
// The data-model and bus stand-ins define their own log calls on top of it.
//
// With TAVEL_ROOT set, records are appended to files under it so tests and
// the demo can read them; otherwise they go to syslog as on a device without
// a log service of its own.  Each record is written with a single writev()
// on an O_APPEND descriptor, so lines from several threads or processes never
// interleave.
//
// The agent logs a few hundred records per onboarding, so the root is read
// once and each file stays open; a record still lands in whatever file is at
// the path when it is written (a file removed or replaced is reopened).
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "platform_log.h"
#include "vformat.h"

namespace
{

// Read once: the agent checks TAVEL_ROOT once at start and never changes it.
const char *rootDir()
{
    static const char *const root = [] {
        const char *r = getenv("TAVEL_ROOT");
        return (r != nullptr && r[0] != '\0') ? r : nullptr;
    }();
    return root;
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

// One log file under the root, kept open between records.  Never destroyed
// (see logFile): any thread may still log while another one calls exit().
class LogFile
{
public:
    explicit LogFile(const char *name) : path_(std::string(rootDir()) + "/var/log/" + name) {}
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;

    // Appends the pieces as one record.
    void append(struct iovec *iov, int count)
    {
        pthread_mutex_lock(&mutex_);
        if (current()) {
            writeAll(iov, count);
        }
        pthread_mutex_unlock(&mutex_);
    }

private:
    // The descriptor of the file now at path_, opened (or reopened) as needed.
    bool current()
    {
        struct stat now;
        if (fd_ >= 0 && (stat(path_.c_str(), &now) != 0 || now.st_dev != dev_ || now.st_ino != ino_)) {
            close(fd_);
            fd_ = -1;
        }
        if (fd_ >= 0) {
            return true;
        }
        fd_ = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0 && errno == ENOENT) {
            makeParents(path_);
            fd_ = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        }
        if (fd_ < 0 || fstat(fd_, &now) != 0) {
            return false;
        }
        dev_ = now.st_dev;
        ino_ = now.st_ino;
        return true;
    }

    void writeAll(struct iovec *iov, int count)
    {
        while (count > 0) {
            ssize_t n = writev(fd_, iov, count);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return;
            }
            // A short write goes on with what is left.
            size_t done = static_cast<size_t>(n);
            for (; count > 0 && done >= iov->iov_len; ++iov, --count) {
                done -= iov->iov_len;
            }
            if (count > 0) {
                iov->iov_base = static_cast<char *>(iov->iov_base) + done;
                iov->iov_len -= done;
            }
        }
    }

    const std::string path_;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    int fd_ = -1;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
};

LogFile &logFile(bool history)
{
    static LogFile *const log = new LogFile("tavel.log");
    static LogFile *const events = new LogFile("history.log");
    return history ? *events : *log;
}

// Word (or nothing), one blank after it, the message, and a line feed unless
// the message ends in one.
void appendRecord(LogFile &file, const char *word, const char *msg, size_t len)
{
    char lf[] = "\n";
    char blank[] = " ";
    struct iovec iov[4] = {{const_cast<char *>(word), strlen(word)},
                           {blank, word[0] != '\0' ? size_t{1} : size_t{0}},
                           {const_cast<char *>(msg), len},
                           {lf, (len == 0 || msg[len - 1] != '\n') ? size_t{1} : size_t{0}}};
    file.append(iov, 4);
}

__attribute__((format(printf, 3, 0))) void emit(int priority, const char *word, const char *fmt, va_list ap)
{
    // The other stand-ins hand over messages they formatted already: taken
    // as they are rather than copied through the formatter again.
    std::string formatted;
    const char *msg;
    if (strcmp(fmt, "%s") == 0) {
        msg = va_arg(ap, const char *);
        msg = msg != nullptr ? msg : "(null)";
    } else {
        formatted = tavel::platform::vformat(fmt, ap);
        msg = formatted.c_str();
    }
    if (rootDir() == nullptr) {
        openlog("tavelAgent", LOG_PID | LOG_NDELAY, LOG_DAEMON);
        syslog(priority, "%s", msg);
        return;
    }
    appendRecord(logFile(false), word, msg, strlen(msg));
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
    appendRecord(logFile(true), "", msg.data(), msg.size());
}

} // extern "C"
