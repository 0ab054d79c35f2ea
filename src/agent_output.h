/*
 * What the agent shows besides its log lines: the plain lines on standard
 * output, a copy of them for a debug command that came as a method call, and
 * the masking of secrets for deployments (TAVEL_REDACT_SECRETS=1).
 */
#ifndef TAVEL_AGENT_OUTPUT_H
#define TAVEL_AGENT_OUTPUT_H

#include <stddef.h>

#include <string>

/* 1 when TAVEL_REDACT_SECRETS is "1" in the agent's environment, read once:
 * the API key, the management password and the cloud API key are then shown
 * as "***" in log lines, on standard output and in the upload's trace.  What
 * is sent and stored never changes. */
int tavel_redacting(void);
/* Reads the variable again (tests). */
void tavel_redactReload(void);
/* How a secret value is shown: "***" when redacting and the value is not
 * empty (an empty one is not a secret, and its absence is worth seeing), the
 * value itself otherwise; null reads as "". */
const char *tavel_secret(const char *value);
/* 1 for the header names whose values are secrets: the request's x-api-key,
 * the reply's pwd and kprconfigapikey (case-insensitive, name without colon). */
int tavel_isSecretHeader(const char *name, size_t len);

/* One plain line (or lines) to standard output, flushed at once because
 * operators watch it live; also appended to the calling thread's capture
 * while an OutputCapture is alive on it. */
void tavel_out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Collects what tavel_out prints on this thread while it lives, up to limit
 * bytes; more is dropped and one closing line says how much.  Captures do not
 * nest: an inner one sees nothing. */
class OutputCapture
{
public:
    explicit OutputCapture(size_t limit);
    ~OutputCapture();
    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;
    /* The text collected so far, with the closing line when some was dropped. */
    std::string text() const;

private:
    friend void tavel_out(const char *fmt, ...);
    void append(const char *text, size_t len);
    std::string text_;
    size_t limit_;
    size_t dropped_ = 0;
    bool active_ = false;
};

#endif
