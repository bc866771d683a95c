#pragma once

/* System-log redirect: sends the process's log to the system log. */

#include <glib.h>

G_BEGIN_DECLS

/*
 * From now on every GLib log line of the process, of any domain and from any thread, goes to the
 * system log under `identity` (kept by reference: pass a string that lives as long as the process)
 * with the syslog(3) `facility`, such as LOG_DAEMON. Call it once, before anything can log.
 *
 * Levels: critical, warning, info and debug map to their namesakes, message to notice, the first
 * user-defined GLib level (256) to LOG_ERR, the fatal error level to LOG_CRIT. A line with a log
 * domain begins with the domain, a colon and a blank. One line of the log is one line there:
 * control characters and bytes that are not UTF-8 are written as \xNN, and a line of more than
 * 4 KiB is cut and says so.
 *
 * Where nobody reads the system log, and on a terminal as well, the same lines go to standard
 * error as "IDENTITY[PID]: LEVEL: TEXT", LEVEL being one of fatal, critical, error, warning,
 * notice, info and debug. Debug lines that have a domain are left out there, unless the environment
 * variable G_MESSAGES_DEBUG names the domain or "all".
 */
void log_redirect_to_syslog(const char *identity, int facility);

G_END_DECLS
