#pragma once

/* What all modules that log share. */

#include <glib.h>

/* The name in front of each line in the system log. */
inline constexpr const char *LOG_IDENTITY = "sonobrik";

/*
 * The daemon's own log level, for errors that do not end the process. GLib's error level cannot be
 * used for them, since GLib aborts after logging at that level.
 */
inline const auto LOG_LEVEL_ERROR = static_cast<GLogLevelFlags>(1 << G_LOG_LEVEL_USER_SHIFT);

/* Logs at LOG_LEVEL_ERROR, with the same arguments as g_warning(). */
#define log_error(...) g_log(G_LOG_DOMAIN, LOG_LEVEL_ERROR, __VA_ARGS__)
