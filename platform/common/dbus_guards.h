// Owners for libdbus-1 objects, shared by the bus stand-in and tavelctl.
// Inline on purpose: no library gains a symbol of its own from them.
#ifndef TAVEL_PLATFORM_DBUS_GUARDS_H
#define TAVEL_PLATFORM_DBUS_GUARDS_H

#include <dbus/dbus.h>

#include <memory>

namespace tavel::platform
{

struct MessageUnref {
    void operator()(DBusMessage *m) const { dbus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<DBusMessage, MessageUnref>;

class ErrorGuard
{
public:
    ErrorGuard() { dbus_error_init(&err_); }
    ~ErrorGuard() { dbus_error_free(&err_); }
    ErrorGuard(const ErrorGuard &) = delete;
    ErrorGuard &operator=(const ErrorGuard &) = delete;
    DBusError *get() { return &err_; }
    bool isSet() const { return dbus_error_is_set(&err_); }
    const char *name() const { return isSet() ? err_.name : "error"; }
    const char *message() const { return isSet() ? err_.message : "unknown error"; }

private:
    DBusError err_;
};

} // namespace tavel::platform

#endif
