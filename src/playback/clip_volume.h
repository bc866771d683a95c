#pragma once

/* The level at which a pipeline plays. */

#include <gst/gst.h>

/*
 * Makes `playbin` play through `sink` at `level`: 0.0 to 10.0, where 1.0 leaves the samples
 * unchanged. Call it before the pipeline plays.
 */
void clip_volume_set(GstElement *playbin, GstElement *sink, double level);
