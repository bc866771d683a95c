#pragma once

/* System-log redirect: sends the log lines of the process to the system log. */

#include <glib.h>
#include <stdbool.h>

G_BEGIN_DECLS

/*
 * Sends all later GLib log lines of the process to the system log, from every domain and thread.
 * The daemon calls it once, on the main thread, before anything can be logged. It cannot fail.
 *
 * `identity` is the name in front of each line. It is not copied, so it must stay valid until the
 * process ends. `facility` is a facility of syslog(3), such as LOG_DAEMON.
 *
 * Levels: critical becomes LOG_CRIT, warning LOG_WARNING, message LOG_NOTICE, info LOG_INFO and
 * debug LOG_DEBUG. GLib's fatal error level becomes LOG_CRIT. The daemon's own error level, the
 * first user-defined GLib level (256), becomes LOG_ERR.
 *
 * Text: if a line has a log domain, the domain, a colon and a blank come first. Control characters
 * and bytes that are not UTF-8 become \xNN, so one log line stays one line. Lines of more than
 * 4 KiB are cut and end with a mark.
 *
 * If no system log is running, or if standard error is a terminal, the lines also go to standard
 * error, as "IDENTITY[PID]: LEVEL: TEXT". LEVEL is fatal, critical, error, warning, notice, info or
 * debug. Debug lines that have a domain appear there only if the environment variable
 * G_MESSAGES_DEBUG contains the domain or "all".
 */
void log_redirect_to_syslog(const char *identity, int facility);

/*
 * The two operations below are optional. If a library does not define both, the daemon does not
 * offer org.freedesktop.LogControl1 on the bus.
 */

/*
 * From now on drops the lines that are less severe than `level`, a level of syslog(3) such as
 * LOG_INFO. Until the first call, no line is dropped. Called on the main thread.
 */
void log_redirect_set_level(int level);

/*
 * From now on sends the lines to `target`, a value of LogTarget in org.freedesktop.LogControl1(5).
 * Returns false, and changes nothing, if this platform cannot log there. "syslog" must be possible;
 * it means what log_redirect_to_syslog() has set up. Called on the main thread.
 */
bool log_redirect_set_target(const char *target);

G_END_DECLS
