#pragma once

/*
 * Files: listing by wildcard, existence, removal, size.
 *
 * Null arguments are answered with the failure value. Called on the main thread.
 */

#include <glib.h>

/*
 * Lists the files whose path matches `path_pattern`, of which only the last component may hold
 * wildcards ("*" any run of characters, "?" any one). Returns a list of new strings, in the order
 * in which the directory yields its entries, or null when nothing matches or the directory is
 * missing; free it with file_utils_free_list().
 */
GSList *file_utils_get_files_from_wildcard(const char *path_pattern);

/* Frees a list of file_utils_get_files_from_wildcard() and sets the caller's variable to null. */
void file_utils_free_list(GSList **list);

/* Does `path` exist, as a file system object of any kind? */
bool file_utils_file_exist(const char *path);

/* Removes `path`. True also when there was nothing to remove: then for null, too. */
bool file_utils_remove_file(const char *path);

/* Returns the size of the file in kibibytes, rounded to the nearest (halves up), or -1. */
gint32 file_utils_get_file_size_kb(const char *path);
