#pragma once

/*
 * Media metadata of the clip records: media discovery computes it when it is first asked for, and
 * the record's file keeps it from then on, even if the media file changes. Called on the main
 * thread.
 */

#include <jansson.h>

#include "sonobrik_group.h"

/*
 * Returns true if the record's metadata is complete: "mediaTypes" of any JSON type, and "size" and
 * "duration" as integers. Logs metadata that is present but wrong.
 */
bool sonobrik_group_metadata_valid(const SonobrikGroup *group);

/*
 * Replaces the record's metadata, taking the reference to `metadata`, and saves the record. Returns
 * false if an argument is null. Also returns false, with a log line, if the metadata is not valid
 * or the record cannot be saved; the record in memory then has the new metadata nevertheless.
 */
bool sonobrik_group_set_media_metadata(SonobrikGroup *group, json_t *metadata);

/*
 * Returns a new object with one member, named by the record's index: an object with "name",
 * "fileName", "mediaTypes", "size" (KiB) and "duration" (ms). If the record has no valid metadata,
 * computes and saves it first, which may block for the discoverer's time-out. Returns null with a
 * log line on failure.
 */
json_t *sonobrik_group_metadata(SonobrikGroup *group);

/*
 * Returns the objects of all records as the text of a JSON array; free it with g_free(). A record
 * whose object cannot be made is logged and left out. Returns null if the array cannot be created.
 */
char *sonobrik_group_get_metadata();
