#pragma once

/* The outputs that the administrator defines in the ALSA configuration. */

#include <set>
#include <string>

#include "alsa_files.h"

/*
 * Returns the names of the PCMs "audiosinkN" and "deviceD_outputO" that the files of the ALSA
 * configuration define, except for `own_files`: the file that this service writes and the one that
 * replaces it without the service. Stores the files in `*files`.
 *
 * The files are parsed one by one and their hooks do not run, so a mistake in one of them hides
 * only the names in that file. Mistakes are not logged here: the daemon logs them.
 */
std::set<std::string> alsa_overrides_find(AlsaFiles *files, const std::set<std::string> &own_files);
