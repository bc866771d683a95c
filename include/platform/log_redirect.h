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
 * user-defined GLib level (256) to LOG_ERR, the fatal error level to LOG_CRIT. One line of the log
 * is one line there: control characters in a message are escaped.
 */
void log_redirect_to_syslog(const char *identity, int facility);

G_END_DECLS
