#include "log_control.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <systemd/sd-bus-vtable.h>

#include "autoptr.h"
#include "log_level.h"
#include "platform/log_redirect.h"

/* Null if the platform's library does not have them. */
#pragma weak log_redirect_set_level
#pragma weak log_redirect_set_target

namespace
{

constexpr const char *OBJECT_PATH = "/org/freedesktop/LogControl1";
constexpr const char *INTERFACE = "org.freedesktop.LogControl1";

/* The index is the level of syslog(3). */
constexpr std::array<const char *, 8> levels = {"emerg",   "alert",  "crit", "err",
                                                "warning", "notice", "info", "debug"};

struct LogState {
    const char *level;
    const char *target;
    const char *identifier;
};

/* What log_redirect_to_syslog() has set up. */
LogState state = {"debug", "syslog", LOG_IDENTITY};

constexpr std::array<const char *, 4> targets = {"console", "kmsg", "journal", "syslog"};

/*
 * Returns a negative errno value, with `error` set, unless root sent the message. sd-bus's own
 * check would allow the daemon's user too, and with it the programs that run as this user.
 */
int check_root(sd_bus_message *message, sd_bus_error *error)
{
    g_autoptr(sd_bus_creds) creds = nullptr;
    uid_t uid = 0;
    int r = sd_bus_query_sender_creds(message, SD_BUS_CREDS_EUID, &creds);
    if (r >= 0) {
        r = sd_bus_creds_get_euid(creds, &uid);
    }
    if (r < 0 || uid != 0) {
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "Only root may change the log.");
    }
    return 0;
}

int get_text(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply, void *text,
             sd_bus_error *)
{
    return sd_bus_message_append(reply, "s", *static_cast<const char **>(text));
}

int set_level(sd_bus *, const char *, const char *, const char *, sd_bus_message *value, void *,
              sd_bus_error *error)
{
    const char *text = nullptr;
    int r = check_root(value, error);
    if (r < 0 || (r = sd_bus_message_read(value, "s", &text)) < 0) {
        return r;
    }
    for (size_t level = 0; level < levels.size(); level++) {
        if (strcmp(text, levels[level]) == 0) {
            log_redirect_set_level(static_cast<int>(level));
            state.level = levels[level];
            return 0;
        }
    }
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                            "LogLevel must be one of emerg, alert, crit, err, warning, notice, "
                            "info, debug.");
}

int set_target(sd_bus *, const char *, const char *, const char *, sd_bus_message *value, void *,
               sd_bus_error *error)
{
    const char *text = nullptr;
    int r = check_root(value, error);
    if (r < 0 || (r = sd_bus_message_read(value, "s", &text)) < 0) {
        return r;
    }
    const auto *known = std::find_if(targets.begin(), targets.end(),
                                     [text](const char *name) { return strcmp(name, text) == 0; });
    if (known == targets.end()) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                                "LogTarget must be one of console, kmsg, journal, syslog.");
    }
    if (!log_redirect_set_target(*known)) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
                                 "The daemon cannot log to %s on this machine.", *known);
    }
    state.target = *known;
    return 0;
}

/* UNPRIVILEGED turns off the check of sd-bus, which check_root() replaces. */
const sd_bus_vtable property_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_WRITABLE_PROPERTY("LogLevel", "s", get_text, set_level, offsetof(LogState, level),
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("LogTarget", "s", get_text, set_target, offsetof(LogState, target),
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("SyslogIdentifier", "s", get_text, offsetof(LogState, identifier), 0),
    SD_BUS_VTABLE_END,
};

} // namespace

void log_control_setup(sonobrik_dbus *conn)
{
    if (!log_redirect_set_level || !log_redirect_set_target || !conn) {
        return;
    }
    const int r = sd_bus_add_object_vtable(conn->bus, nullptr, OBJECT_PATH, INTERFACE,
                                           property_table, &state);
    if (r < 0) {
        g_warning("%sFailed to setup the dbus object %s: %s.", "", OBJECT_PATH, strerror(-r));
    }
}
