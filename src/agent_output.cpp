// Standard-output lines with their bus copy, and the redaction switch.
#include "agent_output.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>

namespace
{

std::atomic<int> g_redact{-1}; // -1: not read yet

// The capture of the calling thread, if any.  A debug command runs on the bus
// thread while the timer thread may print its own dumps: those are not the
// caller's and must not end up in its answer.
thread_local OutputCapture *t_capture = nullptr;

} // namespace

int tavel_redacting(void)
{
    int v = g_redact.load();
    if (v < 0) {
        const char *env = getenv("TAVEL_REDACT_SECRETS");
        v = env != nullptr && strcmp(env, "1") == 0 ? 1 : 0;
        g_redact.store(v);
    }
    return v;
}

void tavel_redactReload(void)
{
    g_redact.store(-1);
}

const char *tavel_secret(const char *value)
{
    if (value == nullptr) {
        return "";
    }
    return value[0] != '\0' && tavel_redacting() != 0 ? "***" : value;
}

int tavel_isSecretHeader(const char *name, size_t len)
{
    for (const char *secret : {"x-api-key", "pwd", "kprconfigapikey"}) {
        if (len == strlen(secret) && strncasecmp(name, secret, len) == 0) {
            return 1;
        }
    }
    return 0;
}

void tavel_out(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    OutputCapture *capture = t_capture;
    if (capture != nullptr) {
        va_list copy;
        va_copy(copy, ap);
        char line[1024];
        int n = vsnprintf(line, sizeof(line), fmt, copy);
        va_end(copy);
        if (n >= 0 && static_cast<size_t>(n) < sizeof(line)) {
            capture->append(line, static_cast<size_t>(n));
        } else if (n >= 0) {
            // Longer than a line buffer: the dumps' long values (a 2 KiB command line).
            std::string big(static_cast<size_t>(n) + 1, '\0');
            va_copy(copy, ap);
            vsnprintf(&big[0], big.size(), fmt, copy);
            va_end(copy);
            capture->append(big.data(), static_cast<size_t>(n));
        }
    }
    vprintf(fmt, ap);
    va_end(ap);
    fflush(stdout);
}

OutputCapture::OutputCapture(size_t limit) : limit_(limit)
{
    if (t_capture == nullptr) {
        t_capture = this;
        active_ = true;
    }
}

OutputCapture::~OutputCapture()
{
    if (active_) {
        t_capture = nullptr;
    }
}

void OutputCapture::append(const char *text, size_t len)
{
    size_t room = limit_ > text_.size() ? limit_ - text_.size() : 0;
    size_t take = len < room ? len : room;
    text_.append(text, take);
    dropped_ += len - take;
}

std::string OutputCapture::text() const
{
    if (dropped_ == 0) {
        return text_;
    }
    char note[96];
    snprintf(note, sizeof(note), "\n[output cut: %zu more bytes on the agent's standard output]\n", dropped_);
    return text_ + note;
}
