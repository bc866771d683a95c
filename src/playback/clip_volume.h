#pragma once

/* The level at which a pipeline plays. */

#include <gst/gst.h>

/*
 * Makes sure that `playbin` can apply the level of its property "volume" when it plays through
 * `sink`, but only once: 0.0 to 10.0, where 1.0 leaves the samples unchanged. playbin itself passes
 * the level to a sink that has a volume. Call it before the pipeline plays.
 */
void clip_volume_prepare(GstElement *playbin, GstElement *sink, double level);
