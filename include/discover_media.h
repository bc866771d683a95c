#pragma once

/*
 * Media discovery: looks into an audio file and describes it. Everything that the daemon knows of a
 * file's content comes from here.
 *
 * Called on the main thread. Each call inspects the file anew and blocks for at most the
 * discoverer's time-out of 5 s.
 */

#include <gst/pbutils/pbutils.h>
#include <jansson.h>

/*
 * Describes the file at `path` in `media_info`, an empty JSON object that stays the caller's:
 *
 * "duration"     integer, ms; cut to 32 signed bits
 * "properties"   object: "audio_codec" (a name for people), "bitrate" (bit/s), "channels",
 *                "bits_per_sample", "sample_rate" (Hz) of the last audio stream; empty without one
 * "media_types"  array of strings: the caps names of the streams, tags and containers first
 *
 * Returns false when the file is missing or not a regular file, when `media_info` is null or not
 * empty, and when the file cannot be described; the object may then hold some of the keys.
 */
bool discover_media(const char *path, json_t *media_info);

/*
 * Adds the names of the caps of one stream to the array `media_types` and, if it is an audio
 * stream, sets its properties in the object `properties`. Returns false, with a log line, when the
 * stream has no caps or a name cannot be added; a property that cannot be set is logged and left
 * out.
 */
bool discover_media_parse_stream(GstDiscovererStreamInfo *info, json_t *media_types,
                                 json_t *properties);
