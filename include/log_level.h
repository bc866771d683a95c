#pragma once

/*
 * The daemon's own log level, for failures that are not fatal in themselves. GLib's error level
 * cannot serve for them: it ends the process.
 */

#include <glib.h>

inline const auto LOG_LEVEL_ERROR = static_cast<GLogLevelFlags>(1 << G_LOG_LEVEL_USER_SHIFT);

/* Logs at LOG_LEVEL_ERROR without a log domain, as g_warning() does at its level. */
#define log_error(...) g_log(G_LOG_DOMAIN, LOG_LEVEL_ERROR, __VA_ARGS__)
