#pragma once

/*
 * Sinks that need no sound card: an "alsasink" and a "veskaudiosink". Each has only the properties
 * that the player sets on it, so GLib warns about a property that is set on the wrong sink.
 */

#include <atomic>
#include <gst/gst.h>

/* Registers both with GStreamer, in place of the machine's own sinks. */
void stand_in_sink_register();

/* Restores the settings below and counts streams from zero. Call it at the start of a test. */
void stand_in_sink_reset();

/* How the sinks behave; read while a clip plays. */
struct StandInSinkSettings {
    std::atomic<bool> in_real_time{false}; /* sinks that are made from now on follow the clock */
    std::atomic<bool> broken{false};       /* the next samples fail with an element error */
};
extern StandInSinkSettings stand_in_sink_settings;

/* Returns the number of sinks that exist now. */
int stand_in_sink_count();

/* Returns how many streams have begun since the last reset: one for each clip of a chain. */
int stand_in_sink_stream_count();

/* Returns when a sink last saw the end of a stream, in monotonic microseconds; 0 if never. */
gint64 stand_in_sink_eos_time();
