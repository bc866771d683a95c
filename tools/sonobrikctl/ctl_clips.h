#pragma once

/* Finding stored clips and files for the commands. */

#include <glib.h>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "client_clips.h"
#include "ctl_say.h"

/*
 * Returns client_clips_list(). On failure explains the error, sets `status` to the exit status and
 * returns null. If the user may list the clips but not read their metadata, returns them without it
 * and sets `status` to CTL_DENIED.
 */
GPtrArray *ctl_clips_list(sd_bus *bus, bool with_metadata, int *status);

/*
 * Returns ctl_clips_list(). If the user may read metadata but not list the clips,
 * returns client_clips_list_metadata() and sets `status` to CTL_DENIED.
 */
GPtrArray *ctl_clips_list_visible(sd_bus *bus, bool with_metadata, int *status);

/*
 * Returns client_clips_find() or, if no clip has that number or name, the clip whose file `list`
 * shows as `text`. On failure, also if several clips have that file, explains the error, with a
 * similar name if there is one, sets `status` and returns null.
 */
const ClientClip *ctl_clips_find(const GPtrArray *clips, const char *text, int *status);

/* Returns the clips whose file is `text`, a path or a path relative to the clip folder. */
std::vector<const ClientClip *> ctl_clips_find_file(const GPtrArray *clips, const char *text);

/* Returns the first clip with this name other than the clip `except`, or null. */
const ClientClip *ctl_clips_find_name(const GPtrArray *clips, const char *name, gint64 except);

/*
 * Returns the name or file of a clip that differs from `text` only in case, or by one character
 * that is added, missing, wrong or swapped with its neighbour. Returns null if there is none.
 */
const char *ctl_clips_similar(const GPtrArray *clips, const char *text);

/* Returns true if a clip can have this name. Prints an error otherwise. */
bool ctl_clips_check_name(const char *name);

/*
 * Asks whether to use the name of `other` for one more clip. Returns true without asking if there
 * is no terminal.
 */
bool ctl_clips_ask_name(const ClientClip &other);

/*
 * Lists the clips again after a question, which can stay unanswered for long while others change
 * the list: the number of `clip` may be that of another clip by now. Returns the list if `clip` has
 * the same name and file in it. Otherwise prints an error, sets `status` and returns null.
 */
GPtrArray *ctl_clips_list_unchanged(sd_bus *bus, const ClientClip &clip, int *status);

/* Removes a clip from the list. Returns the exit status. */
int ctl_clips_remove(sd_bus *bus, gint32 number);

/* Returns the absolute form of `path`. The file need not exist. */
std::string ctl_clips_absolute(const char *path);

/* Asks the daemon whether it can play the file at `path`. Returns false and sets `error` if it
 * cannot, or if the call fails. */
bool ctl_clips_is_supported(sd_bus *bus, const char *path, GError **error);

/* Returns the call that ctl_clips_is_supported() makes, to explain its failure. */
CtlCall ctl_clips_supported_call(sd_bus *bus, const char *path);
