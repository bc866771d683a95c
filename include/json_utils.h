#pragma once

/*
 * JSON files.
 *
 * Null arguments are answered with the failure value. Called on the main thread.
 */

#include <jansson.h>

/*
 * Returns the value that the file holds, as a new reference, or null with a log line. Never blocks:
 * a FIFO, a socket or a device is refused.
 */
json_t *json_utils_load_from_file(const char *path);

/*
 * Writes `value`, an object or an array, to `path` and makes sure that it is on storage. Readers
 * find the old file or the new one, whole. Returns false, and leaves the old file alone, on
 * failure.
 */
bool json_utils_save_to_file(const char *path, const json_t *value);
