#pragma once

/*
 * The player: plays one request at a time, which is a clip or a chain of clips, on one audio
 * output.
 *
 * Call its operations on the main thread. A request ends when its last clip has ended, when the
 * stream fails, or when it is stopped. Each time, the player sends the playing-status events and
 * notifies the D-Bus side.
 */

#include <glib.h>

struct AudioClip; /* one static instance for the whole process */

/*
 * Initialises the player and returns it. It has no reference count: one audio_clip_unref() tears it
 * down. GStreamer must be initialised.
 */
AudioClip *audio_clip_ref();

/*
 * Stops playback without sending events or notifying the D-Bus side, and tears the player down. May
 * block for 3 s. Aborts the process if a start or a stop is still running. Any other pointer than
 * the player, null included, only logs a warning.
 */
void audio_clip_unref(AudioClip *clip);

/*
 * Starts the play request that `options` describe (see audio_clip_options.h). Returns null on
 * success, otherwise the reason of the failure as a new string; free it with g_free(). A null
 * argument is a failure. Inspects the files of the request, so it may block for the discoverer's
 * time-out for each. A pipeline that does not start may block for another 3 s.
 */
char *audio_clip_start(AudioClip *clip, const char *options);

/*
 * Ends the current request, if any, and notifies the D-Bus side that it is over, even if nothing
 * was playing. Ignores the second argument. Returns true; false for a null player. May block for
 * 3 s. If the pipeline cannot be stopped, the process exits with status 1.
 */
bool audio_clip_stop(AudioClip *clip, const char *options);

/* Returns true while a request is playing; false for null. */
bool audio_clip_is_active(AudioClip *clip);
