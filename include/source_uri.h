#pragma once

/*
 * The URI that a pipeline sees. A source may read a file through a descriptor, whose path has no
 * suffix. GStreamer then tries the type finders of all formats, instead of the suffix's ones first.
 */

#include <gst/gst.h>

/* Makes `source` answer `uri` when other elements ask for its URI. It still reads its own file. */
void source_uri_set(GstElement *source, const char *uri);
