#pragma once

/*
 * What the clip records know of their media files: computed by media discovery when it is first
 * asked for, and kept in the record's file from then on, even if the media file changes. Called on
 * the main thread.
 */

#include <jansson.h>

#include "sonobrik_group.h"

/*
 * Is the record's metadata complete: "mediaTypes" of any kind, and "size" and "duration" as
 * integers? Metadata that is there but wrong is logged.
 */
bool sonobrik_group_metadata_valid(const SonobrikGroup *group);

/*
 * Gives the record new metadata, of which it takes the reference, and saves it. Returns false, with
 * a log line unless an argument is null, when it is not valid or the record cannot be saved; the
 * record in memory keeps it nevertheless.
 */
bool sonobrik_group_set_media_metadata(SonobrikGroup *group, json_t *metadata);

/*
 * Returns a new object with one member, named by the record's index: an object with "name",
 * "fileName", "mediaTypes", "size" (kibibytes) and "duration" (ms). Computes and saves the metadata
 * if the record has none that is valid; may then block for the discoverer's time-out. Null with a
 * log line.
 */
json_t *sonobrik_group_metadata(SonobrikGroup *group);

/*
 * Returns the objects of all records as the text of a JSON array, to be freed with g_free(), or
 * null. A record whose object cannot be had, or not be sent over the bus, is logged and left out.
 */
char *sonobrik_group_get_metadata();
