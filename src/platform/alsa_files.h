#pragma once

/*
 * Finds the files and folders of the ALSA configuration, and detects that one has changed.
 *
 * alsa-lib cannot do this: it only watches its top-level file. It misses an edit of
 * /etc/asound.conf and a new file in /etc/alsa/conf.d, which the top-level file loads.
 *
 * Main thread only.
 */

#include <map>
#include <string>

#include "config_file.h"

struct AlsaFiles {
    std::string top_level;                         /* as configured: paths separated by colons */
    std::map<std::string, ConfigFileStamp> stamps; /* by path, also of paths that do not exist */
};

/*
 * Returns everything that the configuration consists of now: the top-level files, the files that
 * they load or include, and so on. Folders and their members are listed, and so are paths that do
 * not exist yet.
 *
 * Parts with errors are searched as far as possible, because a superfluous path does no harm. The
 * messages of alsa-lib about such parts go to the thread's error handler.
 */
AlsaFiles alsa_files_find();

/* Returns true if any of the files has changed since `files` was returned. */
bool alsa_files_changed(const AlsaFiles &files);
