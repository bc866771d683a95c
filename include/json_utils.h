#pragma once

/*
 * Loads and saves JSON files.
 *
 * Every function returns its failure value for a null argument. Called on the main thread.
 */

#include <jansson.h>

/*
 * Returns the object or array in the file as a new reference, or null with a log line. Never
 * blocks: FIFOs, sockets and devices are refused.
 */
json_t *json_utils_load_from_file(const char *path);

/*
 * Writes `value`, an object or an array, to `path` with util_write_file_synced(): on success the
 * text is on storage, and a reader finds the old content or the new, never a part. Returns false if
 * the value cannot be serialised or written.
 */
bool json_utils_save_to_file(const char *path, const json_t *value);
