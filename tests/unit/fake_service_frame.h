#pragma once

/* A fake service frame: records requests to quit. */

#include <glib.h>
#include <vector>

/* The exit codes of all requests to quit, oldest first; a test clears them before it starts. */
inline std::vector<gint32> quits;
