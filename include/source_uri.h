#pragma once

/*
 * The URI that a pipeline sees. GStreamer first tries the type finders that belong to the suffix of
 * the file. A source that reads through a descriptor has a path without a suffix, so GStreamer
 * would try those of all formats.
 */

#include <gst/gst.h>

/* Makes `source` answer `uri` when other elements ask for its URI. It still reads its own file. */
void source_uri_set(GstElement *source, const char *uri);
