#pragma once

/*
 * The player: plays one request at a time, a clip or a chain of clips, on one audio output.
 *
 * The operations are called on the main thread. A request ends when its last clip has ended, when
 * the stream breaks, or when it is stopped; each time the playing-status events and the D-Bus side
 * are told.
 */

#include <glib.h>

struct AudioClip; /* there is one, for the life of the process */

/*
 * Makes the player ready and returns it. It is not counted: one audio_clip_unref() undoes it.
 * GStreamer must be initialised.
 */
AudioClip *audio_clip_ref();

/* Ends what plays, without telling anybody, and releases the player. */
void audio_clip_unref(AudioClip *clip);

/*
 * Starts the play request that `options` describe (see audio_clip_options.h). Returns null when it
 * plays, otherwise a new text for the caller of the service, to be freed with g_free(). Inspects
 * the files of the request, so it may block for the discoverer's time-out for each.
 */
char *audio_clip_start(AudioClip *clip, const char *options);

/*
 * Ends the request that plays, if any, and tells the D-Bus side that it is over, also when nothing
 * played. The second argument is ignored. Always returns true. May block for 3 s; a pipeline that
 * cannot be stopped ends the process with exit status 1.
 */
bool audio_clip_stop(AudioClip *clip, const char *options);

/* Does a request play? False for null. */
bool audio_clip_is_active(AudioClip *clip);
