#pragma once

/*
 * Loads and saves JSON files.
 *
 * Every function returns its failure value for a null argument. Called on the main thread.
 */

#include <cstddef>
#include <jansson.h>

/* The longest file that is loaded, in bytes. */
inline constexpr size_t JSON_UTILS_FILE_MAX = size_t{1024} * 1024;

/*
 * Returns the object or array in the file as a new reference, or null with a log line. FIFOs,
 * sockets, devices and files of more than JSON_UTILS_FILE_MAX bytes are refused, because reading
 * them could block the caller.
 */
json_t *json_utils_load_from_file(const char *path);

/*
 * Writes `value`, an object or an array, to `path` with util_write_file_synced(): on success the
 * text is on storage, and a reader finds the old content or the new, never a part. Returns false if
 * the value cannot be serialised or written.
 */
bool json_utils_save_to_file(const char *path, const json_t *value);

/*
 * Returns at least the length of the compact JSON text of `value`, and 32 for null, without writing
 * the text.
 */
size_t json_utils_bound_size(json_t *value);
