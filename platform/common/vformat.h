// printf-style formatting into a std::string, shared by the stand-ins whose
// log calls all end in the platform log (log_log).  Inline on purpose: each
// stand-in library stays self-contained and defines no extra strong symbol.
#ifndef TAVEL_PLATFORM_VFORMAT_H
#define TAVEL_PLATFORM_VFORMAT_H

#include <stdarg.h>
#include <stdio.h>

#include <string>

namespace tavel::platform
{

__attribute__((format(printf, 1, 0))) inline std::string vformat(const char *fmt, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    char small[512];
    int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) {
        return std::string();
    }
    if (static_cast<size_t>(n) < sizeof(small)) {
        return std::string(small, static_cast<size_t>(n));
    }
    std::string out(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(&out[0], out.size(), fmt, ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

} // namespace tavel::platform

#endif
