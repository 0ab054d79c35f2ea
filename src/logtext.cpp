#include "logtext.h"

#include <string.h>

namespace
{

// Length of the well-formed UTF-8 character starting at s (at most n bytes
// available), or 0 when the byte does not start one.  Overlong forms,
// surrogates and code points past U+10FFFF are not well formed.
size_t utf8Length(const unsigned char *s, size_t n)
{
    unsigned char b = s[0];
    size_t len;
    unsigned char lo = 0x80;
    unsigned char hi = 0xbf;
    if (b >= 0xc2 && b <= 0xdf) {
        len = 2;
    } else if (b >= 0xe0 && b <= 0xef) {
        len = 3;
        lo = b == 0xe0 ? 0xa0 : 0x80;
        hi = b == 0xed ? 0x9f : 0xbf;
    } else if (b >= 0xf0 && b <= 0xf4) {
        len = 4;
        lo = b == 0xf0 ? 0x90 : 0x80;
        hi = b == 0xf4 ? 0x8f : 0xbf;
    } else {
        return 0;
    }
    if (n < len || s[1] < lo || s[1] > hi) {
        return 0;
    }
    for (size_t i = 2; i < len; ++i) {
        if (s[i] < 0x80 || s[i] > 0xbf) {
            return 0;
        }
    }
    return len;
}

} // namespace

size_t tavel_escapeText(char *dst, size_t dstSize, const char *src, size_t srcLen)
{
    static const char kHex[] = "0123456789abcdef";
    if (dstSize == 0) {
        return 0;
    }
    const unsigned char *s = reinterpret_cast<const unsigned char *>(src);
    size_t n = src != nullptr ? strnlen(src, srcLen) : 0;
    size_t in = 0;
    size_t out = 0;
    while (in < n) {
        char unit[16];
        size_t unitLen = 0;
        size_t taken = 1;
        unsigned char b = s[in];
        size_t seq = b >= 0x80 ? utf8Length(s + in, n - in) : 0;
        // A C1 control is U+0080-U+009F: 0xc2 followed by 0x80-0x9f.
        bool c1 = seq == 2 && b == 0xc2 && s[in + 1] <= 0x9f;
        if (b >= 0x20 && b < 0x7f) {
            unit[unitLen++] = static_cast<char>(b);
        } else if (b == '\n' || b == '\r' || b == '\t') {
            unit[unitLen++] = '\\';
            unit[unitLen++] = b == '\n' ? 'n' : (b == '\r' ? 'r' : 't');
        } else if (seq > 0 && !c1) {
            memcpy(unit, s + in, seq);
            unitLen = seq;
            taken = seq;
        } else {
            taken = c1 ? 2 : 1;
            for (size_t i = 0; i < taken; ++i) {
                unsigned char c = s[in + i];
                unit[unitLen++] = '\\';
                unit[unitLen++] = 'x';
                unit[unitLen++] = kHex[c >> 4];
                unit[unitLen++] = kHex[c & 0x0f];
            }
        }
        if (out + unitLen >= dstSize) {
            break;
        }
        memcpy(dst + out, unit, unitLen);
        out += unitLen;
        in += taken;
    }
    dst[out] = '\0';
    return in;
}

void tavel_markCut(char *buf, size_t size)
{
    size_t len = strnlen(buf, size);
    if (len < size) {
        strncat(buf, "...", size - len - 1);
    }
}
