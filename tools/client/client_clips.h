#pragma once

/* The stored clips, as the daemon tells of them. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

/* One stored clip. The texts are the daemon's and may hold anything that is UTF-8. */
struct ClientClip {
    gint32 number;
    char *name;     /* owned; empty if it has none */
    char *location; /* owned; path of its file, empty for a clip without one */

    /* What is known of the file's content; null and negative where the daemon left the clip out,
     * since the file is missing or is no media, and where it was not asked. */
    char **media_types; /* owned; containers first */
    gint64 size_kib;
    gint64 duration_ms;
};

void client_clip_free(ClientClip *clip);
G_DEFINE_AUTOPTR_CLEANUP_FUNC(ClientClip, client_clip_free)

/*
 * Returns all clips, an array of owned ClientClip sorted by number, or null with an error. With
 * `with_metadata` the daemon looks into files that it does not know yet, for up to 5 s each.
 */
GPtrArray *client_clips_list(sd_bus *bus, bool with_metadata, GError **error);

/*
 * Returns the clip that `text` means, borrowed from `clips`: the one with that number or else the
 * one with that name. Null with CLIENT_ERROR_NO_CLIP if there is none, or if several have the name;
 * the message says which then.
 */
const ClientClip *client_clips_find(const GPtrArray *clips, const char *text, GError **error);

/* Returns the clip with this number, borrowed from `clips`, or null. */
const ClientClip *client_clips_get(const GPtrArray *clips, gint64 number);
