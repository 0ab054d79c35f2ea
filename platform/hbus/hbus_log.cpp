// The bus layer's fatal log (hbus.h), on top of the platform log.
#include <stdarg.h>
#include <syslog.h>

#include <string>

#include "hbus.h"
#include "platform_log.h"
#include "vformat.h"

extern "C" void hbusLogFatalReal(int line, const char *func, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string msg = tavel::platform::vformat(fmt, ap);
    va_end(ap);
    log_log(LOG_CRIT, func, line, "%s", msg.c_str());
}
