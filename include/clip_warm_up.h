#pragma once

/*
 * Loads what the first clip needs before it is asked for: GStreamer's plugins and classes for the
 * supported formats. Main thread only.
 */

/*
 * Starts loading, one element per turn of the default main context, whenever nothing else is due.
 * Call it after gst_init(). Skips a plugin that is not installed, without a log line. A request
 * that needs a plugin before it is loaded here loads it itself.
 */
void clip_warm_up_start();

/* Stops loading. What is loaded stays. Does nothing if nothing is left to load. */
void clip_warm_up_stop();
