#pragma once

/*
 * Media discovery: inspects an audio file and describes it. All that the daemon knows about the
 * content of a file comes from here.
 *
 * Called on the main thread. Nothing is cached: each call inspects the file again and blocks for at
 * most 5 s, the discoverer's time-out.
 */

#include <gst/pbutils/pbutils.h>
#include <jansson.h>

/*
 * Describes the file at `path` in `media_info`, an empty JSON object that the caller keeps owning:
 *
 * "duration"     integer, ms; truncated to a signed 32-bit number
 * "properties"   object: "audio_codec" (human-readable), "bitrate" (bit/s), "channels",
 *                "bits_per_sample", "sample_rate" (Hz) of the last audio stream; empty if the file
 *                has no audio stream
 * "media_types"  array of strings: the caps names of the streams, tags and containers first
 *
 * The file is opened before it is inspected, so `path` may change meanwhile without effect.
 *
 * Returns false if the file is missing, is not a regular file or cannot be described, or if
 * `media_info` is null or not empty. The object may then contain some of the keys.
 */
bool discover_media(const char *path, json_t *media_info);

/*
 * Adds the names of one stream's caps to the array `media_types`. For an audio stream, it also sets
 * the stream's properties in the object `properties`; a property that cannot be set is logged and
 * left out. Returns false, with a log line, if the stream has no caps or a name cannot be added.
 */
bool discover_media_parse_stream(GstDiscovererStreamInfo *info, json_t *media_types,
                                 json_t *properties);
