#pragma once

/* Which audio formats clips may have. Called on the main thread; inspects the file. */

/*
 * Can the file at `path` be played on this device: MPEG-1 audio, Opus, Vorbis, Sun audio, WAV or
 * mu-law? The last media type of the file decides, those before it being containers and tags.
 *
 * `error_message` may be null. Otherwise, on false, a null `*error_message` is replaced by a new
 * text for people, to be freed with g_free(); one that is there already is kept.
 */
bool discover_media_is_supported(const char *path, char **error_message);
