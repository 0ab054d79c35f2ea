// The agent's log calls at three levels (platform_log.h).  On the device the
// data-model library may be the one that defines them; here they hand each
// formatted message to log_log, which writes the level word the agent's log
// readers expect.
#include <stdarg.h>
#include <string.h>
#include <syslog.h>

#include <string>

#include "platform_log.h"
#include "vformat.h"

namespace
{

// Out of line: its line buffer is on the stack only for the callers that
// need it formatted.
__attribute__((format(printf, 2, 0), noinline)) void dmlLogFormatted(int level, const char *fmt, va_list ap)
{
    std::string msg = tavel::platform::vformat(fmt, ap);
    log_log(level, "dml", 0, "%s", msg.c_str());
}

__attribute__((format(printf, 2, 0))) void dmlLog(int level, const char *fmt, va_list ap)
{
    // The agent hands over lines it put together itself (the "%s" format):
    // passed on as they are rather than copied through the formatter again.
    if (strcmp(fmt, "%s") == 0) {
        log_log(level, "dml", 0, "%s", va_arg(ap, const char *));
        return;
    }
    dmlLogFormatted(level, fmt, ap);
}

} // namespace

extern "C" {

void dmlLogDebug(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    dmlLog(LOG_DEBUG, fmt, ap);
    va_end(ap);
}

void dmlLogNotice(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    dmlLog(LOG_NOTICE, fmt, ap);
    va_end(ap);
}

void dmlLogError(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    dmlLog(LOG_ERR, fmt, ap);
    va_end(ap);
}

} // extern "C"
