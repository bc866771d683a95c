#pragma once

/* Finding stored clips and files for the commands. */

#include <glib.h>
#include <string>
#include <systemd/sd-bus.h>

#include "client_clips.h"
#include "ctl_say.h"

/* Returns client_clips_list(). On failure explains the error, sets `status` to the exit status and
 * returns null. */
GPtrArray *ctl_clips_list(sd_bus *bus, bool with_metadata, int *status);

/* Returns client_clips_find(). On failure does the same as ctl_clips_list(). */
const ClientClip *ctl_clips_find(const GPtrArray *clips, const char *text, int *status);

/* Returns the absolute form of `path`. The file need not exist. */
std::string ctl_clips_absolute(const char *path);

/* Asks the daemon whether it can play the file at `path`. Returns false and sets `error` if it
 * cannot, or if the call fails. */
bool ctl_clips_is_supported(sd_bus *bus, const char *path, GError **error);

/* Returns the call that ctl_clips_is_supported() makes, to explain its failure. */
CtlCall ctl_clips_supported_call(sd_bus *bus, const char *path);
