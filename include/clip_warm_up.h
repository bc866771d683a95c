#pragma once

/*
 * Prepares for the first clip before anybody asks for one: loads GStreamer's plugins and classes
 * for the supported formats, and rehearses a clip. Main thread only.
 */

/*
 * Starts loading, one element per turn of the default main context, whenever nothing else is due.
 * Call it after gst_init(). Skips a plugin that is not installed, without a log line. A request
 * that needs a plugin before it is loaded here loads it itself.
 *
 * Then a pipeline prepares a short clip of silence, without a sound device and without playing it.
 * That binds the functions of the libraries and grows the heap.
 */
void clip_warm_up_start();

/* Cancels a rehearsal that has not begun. After a real clip, it would only take processor time. */
void clip_warm_up_skip_rehearsal();

/* Stops loading and rehearsing. What is loaded stays. Does nothing if nothing is left to do. */
void clip_warm_up_stop();
