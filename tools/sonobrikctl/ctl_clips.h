#pragma once

/* The stored clips, and files, as commands look for them. */

#include <glib.h>
#include <string>
#include <systemd/sd-bus.h>

#include "client_clips.h"
#include "ctl_say.h"

/* Where clips have to lie to be stored. */
constexpr const char *CTL_CLIP_FOLDER = "/etc/audioclips";

/* Returns client_clips_list(), or null after an explanation, with the exit status in `status`. */
GPtrArray *ctl_clips_list(sd_bus *bus, bool with_metadata, int *status);

/* Returns the clip that `text` means, by number or name, borrowed from `clips`, or null likewise.
 */
const ClientClip *ctl_clips_find(const GPtrArray *clips, const char *text, int *status);

/* Returns an absolute path of the file `path`, which need not exist. */
std::string ctl_clips_absolute(const char *path);

/* Asks the daemon whether it can play the file at `path`. False, with `error`, if it cannot, or
 * cannot be asked. */
bool ctl_clips_is_supported(sd_bus *bus, const char *path, GError **error);

/* The call of ctl_clips_is_supported(), to explain its failure by. */
CtlCall ctl_clips_supported_call(sd_bus *bus, const char *path);
