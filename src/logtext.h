/*
 * Text from outside the agent (bus payloads, the server's reply headers and
 * body, values read from the store, the time-zone mapping file) on its way
 * into a log record or the debug output.  Each call must stay one record, so
 * nothing that could end or rewrite a line passes through:
 *
 *   - printable ASCII and well-formed UTF-8 stay exactly as they are, the
 *     backslash included;
 *   - LF, CR and TAB become the two characters \n, \r and \t;
 *   - every other control byte (0x00-0x1f, 0x7f), each byte of a C1 control
 *     (U+0080-U+009F) and each byte that is not part of well-formed UTF-8
 *     becomes \xNN, two lower-case hex digits.
 *
 * The backslash is kept because it is printable: the escaping keeps records
 * whole and readable, it is not meant to be undone.
 */
#ifndef TAVEL_LOGTEXT_H
#define TAVEL_LOGTEXT_H

#include <stddef.h>
#include <stdint.h>

/* Escapes at most srcLen bytes of src, stopping early at a NUL, into dst
 * (always terminated when dstSize > 0).  Never cuts an escape or a UTF-8
 * character in two: what does not fit whole is left out, with all that
 * follows.  Returns the number of source bytes written out.  4 * srcLen + 1
 * bytes of dst always hold the whole text. */
size_t tavel_escapeText(char *dst, size_t dstSize, const char *src, size_t srcLen);

/* Appends "..." to the text in buf (of size bytes), as far as it fits. */
void tavel_markCut(char *buf, size_t size);

/* The escaped text of at most N source bytes, for one log argument:
 * TAVEL_LOGN("url %s\n", LogText<256>(url).c_str()).  src may be null (""),
 * a C string, or len bytes that need no terminator.  A text cut at N bytes
 * ends in "...". */
template <size_t N> class LogText
{
public:
    explicit LogText(const char *src, size_t len = SIZE_MAX)
    {
        if (src == nullptr) {
            buf_[0] = '\0';
            return;
        }
        size_t take = len < N ? len : N;
        size_t used = tavel_escapeText(buf_, sizeof(buf_), src, take);
        // No NUL among the first N bytes: the text goes on only when its
        // next byte, which then exists, is not the terminator.
        if (used == take && take < len && src[take] != '\0') {
            tavel_markCut(buf_, sizeof(buf_));
        }
    }
    LogText(const LogText &) = delete;
    LogText &operator=(const LogText &) = delete;
    const char *c_str() const { return buf_; }

private:
    char buf_[4 * N + sizeof("...")];
};

/* A text of the agent's own heap fields (the reply's values, which the store
 * keeps in fields of at most 1024 characters). */
using LogValue = LogText<1024>;

/* A fixed record field, read within its size: logText(cfg.URL). */
template <size_t N> LogText<N> logText(const char (&field)[N])
{
    return LogText<N>(field, N);
}

#endif
