#pragma once

/* The files that one play request may play, and the random draw among them. */

#include <glib.h>

struct Playlist {
    GList *files; /* owned path strings, in the order in which they were added */
};

/* Returns an empty playlist; free it with playlist_free(). */
Playlist *playlist_new();

/* Forgets all files. Null does nothing. */
void playlist_clear(Playlist *playlist);

/* Null does nothing. */
void playlist_free(Playlist *playlist);

/*
 * Adds `path` if its format can be played. Inspects the file, so it may block for the discoverer's
 * time-out. Returns false, and adds nothing, for a null argument or an unsupported file.
 */
bool playlist_add(Playlist *playlist, const char *path);

/*
 * Adds the file that `path` names or, if there is no supported one with that very name, every
 * supported file that matches it: its last component may hold "*" and "?". Inspects each file.
 * Returns whether at least one was added; false for a null argument.
 */
bool playlist_add_from_wildcard_path(Playlist *playlist, const char *path);

/* Returns the number of files, 0 for null. */
guint playlist_get_length(const Playlist *playlist);

/*
 * Draws a file at random, never `avoid` (may be null) while there is another. Returns a path that
 * the playlist owns, or null if it is empty or null.
 */
const char *playlist_get_random_file(const Playlist *playlist, const char *avoid);

/*
 * As playlist_get_random_file(), with "file" URIs: avoids the file of `current_uri` (may be null)
 * and returns a new string to be freed with g_free(), or null.
 */
char *playlist_get_random_uri(const Playlist *playlist, const char *current_uri);
