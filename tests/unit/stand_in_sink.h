#pragma once

/*
 * Sinks that need no sound card: an "alsasink" and a "veskaudiosink" with the properties that the
 * player sets, each with its own alone, so that a property set on the wrong one is a GLib warning.
 */

#include <atomic>
#include <gst/gst.h>

/* Makes both known to GStreamer, in place of the machine's own. */
void stand_in_sink_register();

/* Back to the settings below, and counting from zero; for the start of a test. */
void stand_in_sink_reset();

/* How the sinks behave; read while a clip plays. */
struct StandInSinkSettings {
    std::atomic<bool> in_real_time{false}; /* for sinks made from now on: pace by the clock */
    std::atomic<bool> broken{false};       /* the next samples fail with an element error */
};
extern StandInSinkSettings stand_in_sink_settings;

/* Sinks that exist now. */
int stand_in_sink_count();

/* Streams that began at a sink since the last reset: one for each clip of a chain. */
int stand_in_sink_stream_count();

/* When, in monotonic microseconds, a sink last saw the end of a stream; 0 if never. */
gint64 stand_in_sink_eos_time();
