#pragma once

/* The stored clips, as the daemon lists them. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

/* The folder in which stored clips must be, without a slash at the end. */
inline constexpr const char *CLIENT_CLIP_FOLDER = "/etc/audioclips";

/* The maximum length of a clip's name in bytes, which is the daemon's. */
inline constexpr size_t CLIENT_MAX_NAME = 255;

/* One stored clip. The texts come from the daemon and can contain any UTF-8, control characters
 * included. */
struct ClientClip {
    gint32 number;
    char *name;     /* owned; empty if the clip has no name */
    char *location; /* owned; path of the file, empty if the clip has no file */

    /* Owned; the name of the file in a clip of client_clips_list_metadata(), else null. */
    char *file_name;

    /* The file's metadata. Null and negative if it was not requested, or if the daemon has none
     * because the file is missing or not playable. */
    char **media_types; /* owned; the container first */
    gint64 size_kib;
    gint64 duration_ms;
};

void client_clip_free(ClientClip *clip);
G_DEFINE_AUTOPTR_CLEANUP_FUNC(ClientClip, client_clip_free)

/*
 * Returns all clips, an array of owned ClientClip sorted by number, or null with an error. With
 * `with_metadata`, the daemon probes files that it has not seen yet, which takes up to 5 s each.
 */
GPtrArray *client_clips_list(sd_bus *bus, bool with_metadata, GError **error);

/*
 * Returns the clips as far as their metadata shows them, for a user who may not list them: those
 * whose file the daemon can inspect, sorted by number, with an empty location. Returns null with an
 * error.
 */
GPtrArray *client_clips_list_metadata(sd_bus *bus, GError **error);

/*
 * Reads the reply of GetConfigurations, for callers that do not wait for it in client_clips_list().
 * Returns the clips without metadata, sorted by number, or null with an error.
 */
GPtrArray *client_clips_read(sd_bus_message *answer, GError **error);

/* Reads the reply of GetMetadata into `clips`. Returns false with an error if it is invalid. */
bool client_clips_read_metadata(GPtrArray *clips, sd_bus_message *answer, GError **error);

/* Returns true if `error`, of a call of GetConfigurations, means that there are no clips. */
bool client_clips_means_none(const GError *error);

/*
 * Returns the clip whose number is `text` or, failing that, the clip whose name is `text`, borrowed
 * from `clips`. Returns null with CLIENT_ERROR_NO_CLIP if there is none, or if several clips have
 * that name; the message then lists their numbers.
 */
const ClientClip *client_clips_find(const GPtrArray *clips, const char *text, GError **error);

/* Returns the clip with this number, borrowed from `clips`, or null. */
const ClientClip *client_clips_get(const GPtrArray *clips, gint64 number);

/* Returns true if no number below `number` is free: a clip that is added after clip `number` was
 * removed gets that number again. */
bool client_clips_is_lowest_free(const GPtrArray *clips, gint32 number);

/* Returns true if both paths lead to the same file of this machine, or are equal. */
bool client_clips_is_same_file(const char *first, const char *second);

/* Returns another clip with the same file as `clip`, borrowed from `clips`, or null. Only on the
 * machine of the daemon: paths can differ and still lead to the same file. */
const ClientClip *client_clips_find_sharer(const GPtrArray *clips, const ClientClip *clip);

/* Returns the call that gives clip `number` the name `name`, or null with an error. Send it like a
 * call of client_bus_new_call(). */
sd_bus_message *client_clips_new_rename(sd_bus *bus, gint32 number, const char *name,
                                        GError **error);

/* Returns the part of `location` that is relative to the clip folder, or all of it if it is outside
 * that folder. The result points into `location`. */
const char *client_clips_relative(const char *location);
