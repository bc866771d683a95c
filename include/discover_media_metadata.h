#pragma once

/*
 * The part of a clip's record that is read from its media file: formats, duration and size. Called
 * on the main thread.
 */

#include <glib.h>
#include <jansson.h>

struct discover_media_metadata {
    json_t *media_types;  /* owned; array of strings, see discover_media() */
    json_t *properties;   /* owned; object, see discover_media() */
    gint64 duration_ms;   /* "duration" of discover_media() */
    gint64 media_size_kb; /* kibibytes */
};

/*
 * Inspects the file at `path`. Returns a new record, or null if the file cannot be described or its
 * size cannot be read. Free the record with discover_media_free_metadata(). Blocks as long as
 * discover_media() does.
 */
discover_media_metadata *discover_media_get_metadata(const char *path);

/*
 * Returns an empty table that remembers the results of one request, so that a file that several
 * records share is inspected once. Free it with g_hash_table_unref().
 */
GHashTable *discover_media_memo_new();

/*
 * Does the same as discover_media_get_metadata(), but takes the result from `memo` if the path is
 * in it, and adds it otherwise. Failures are remembered too. `memo` may be null.
 */
discover_media_metadata *discover_media_get_metadata_once(const char *path, GHashTable *memo);

/* Frees the record and drops its references. A null record is ignored. */
void discover_media_free_metadata(discover_media_metadata *m);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(discover_media_metadata, discover_media_free_metadata)

/* Return a reference borrowed from the record, or null for a null record. */
json_t *discover_media_metadata_get_media_types(const discover_media_metadata *m);
json_t *discover_media_metadata_get_properties(const discover_media_metadata *m);

/* Return milliseconds and kibibytes; -1 for a null record. */
gint64 discover_media_metadata_get_duration_ms(const discover_media_metadata *m);
gint64 discover_media_metadata_get_media_size_kb(const discover_media_metadata *m);
