#pragma once

/* The files that one play request may play, and the random choice among them. */

#include <glib.h>

struct Playlist {
    GList *files; /* owned path strings, in the order in which they were added */
};

/* Returns an empty playlist; free it with playlist_free(). */
Playlist *playlist_new();

/* Removes all files. Does nothing for null. */
void playlist_clear(Playlist *playlist);

/* Frees the playlist and its paths. Does nothing for null. */
void playlist_free(Playlist *playlist);

/*
 * Adds `path` if its format can be played. Inspects the file, so it may block for the discoverer's
 * time-out. Returns false, and adds nothing, for a null argument or an unsupported file.
 */
bool playlist_add(Playlist *playlist, const char *path);

/*
 * Adds the file with the literal name `path`. If that file is missing or unsupported, expands
 * "*" and "?" in the last component of `path` and adds every supported file that matches. Inspects
 * each file, so it may block for the discoverer's time-out for each. Returns true if at least one
 * file was added; false for a null argument.
 */
bool playlist_add_from_wildcard_path(Playlist *playlist, const char *path);

/* Returns the number of files, 0 for null. */
guint playlist_get_length(const Playlist *playlist);

/*
 * Picks a file at random. Picks `avoid` (may be null) only if there is no other file. Returns a
 * path that the playlist owns, or null if the playlist is empty or null.
 */
const char *playlist_get_random_file(const Playlist *playlist, const char *avoid);

/*
 * Picks a file at random and returns its "file" URI as a new string; free it with g_free(). Picks
 * the file of `current_uri` (may be null) only if there is no other file, or if the URI escapes a
 * character of its path. Returns null if the playlist is empty or null, and with a warning if the
 * path cannot be converted.
 */
char *playlist_get_random_uri(const Playlist *playlist, const char *current_uri);
