#pragma once

/*
 * What a clip's record keeps of its media file: formats, length and size. Called on the main
 * thread.
 */

#include <glib.h>
#include <jansson.h>

struct discover_media_metadata {
    json_t *media_types;  /* owned array of strings, see discover_media() */
    json_t *properties;   /* owned object, see discover_media() */
    gint64 duration_ms;   /* as "duration" of discover_media() */
    gint64 media_size_kb; /* kibibytes */
};

/*
 * Inspects the file at `path`. Returns a new record, to be freed with
 * discover_media_free_metadata(), or null when it cannot be described or its size cannot be read.
 * May block as discover_media() does.
 */
discover_media_metadata *discover_media_get_metadata(const char *path);

/* Null does nothing. */
void discover_media_free_metadata(discover_media_metadata *m);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(discover_media_metadata, discover_media_free_metadata)

/* Borrowed from the record; null for a null record. */
json_t *discover_media_metadata_get_media_types(const discover_media_metadata *m);
json_t *discover_media_metadata_get_properties(const discover_media_metadata *m);

/* In milliseconds and in kibibytes; -1 for a null record. */
gint64 discover_media_metadata_get_duration_ms(const discover_media_metadata *m);
gint64 discover_media_metadata_get_media_size_kb(const discover_media_metadata *m);
