#pragma once

/* A fake service frame: records requests to quit, and counts those to feed the watchdog. */

#include <glib.h>
#include <vector>

/* The exit codes of all requests to quit, oldest first; a test clears them before it starts. */
inline std::vector<gint32> quits;

/* How often the watchdog was fed; a test clears it before it starts. */
inline int watchdog_feeds;
