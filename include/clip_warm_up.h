#pragma once

/*
 * Loads what the first clip needs before it is asked for: GStreamer's plugins and classes for the
 * supported formats. Main thread only.
 */

/*
 * Starts loading, one element per turn of the default main context, whenever nothing else is due.
 * Call it after gst_init(). A plugin that is not installed is skipped without a log line; a request
 * that needs one that is not loaded yet loads it as before.
 */
void clip_warm_up_start();

/* Stops loading. What is loaded stays. Does nothing if nothing is left to load. */
void clip_warm_up_stop();
