#pragma once

/* Decides whether the device can play a file's audio format. Called on the main thread. */

/*
 * Returns true if the format of the file at `path` is MP3, MP2 or MP1, Opus, Vorbis, Sun audio, WAV
 * or mu-law. The last media type of the file decides; those before it are containers and tags.
 * Inspects the file, so it blocks as long as discover_media() does.
 *
 * `error_message` may be null. Otherwise, if the result is false and `*error_message` is null, it
 * is set to a new message, to be freed with g_free(). A message that is already there is kept.
 */
bool discover_media_is_supported(const char *path, char **error_message);
