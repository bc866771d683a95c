#include "clip_volume.h"

#include <gst/audio/streamvolume.h>

namespace
{

constexpr double UNCHANGED = 1.0;

/* Returns true if the sink, or an element in it, sets the level itself. */
bool has_volume(GstElement *sink)
{
    if (!GST_IS_BIN(sink)) {
        return GST_IS_STREAM_VOLUME(sink);
    }
    g_autoptr(GstElement) element = gst_bin_get_by_interface(GST_BIN(sink), GST_TYPE_STREAM_VOLUME);
    return element != nullptr;
}

/* Makes `playbin` play through a filter that sets the level. */
void add_filter(GstElement *playbin, double level)
{
    GstElement *filter = gst_element_factory_make("volume", nullptr);
    if (!filter) {
        g_warning("%sCould not create volume.", "");
        return; /* playbin reports that it cannot set the level either */
    }
    g_object_set(filter, "volume", level, nullptr);
    g_object_set(playbin, "audio-filter", filter, nullptr);
}

} // namespace

void clip_volume_prepare(GstElement *playbin, GstElement *sink, double level)
{
    /*
     * Without the flag "soft-volume" playbin makes no volume element of its own, which GStreamer
     * 1.22 leaks with each pipeline. Without "video" and "text" it does not decode either.
     */
    const char *flags = "audio";
    /* A filter brings converters along. They cost a fifth of the whole start, even at level 1. */
    if (level != UNCHANGED && !has_volume(sink)) {
        if (GST_IS_BIN(sink)) {
            /* The bin may still get an element with a volume; playbin looks again when it plays. */
            flags = "audio+soft-volume";
        } else {
            add_filter(playbin, level);
        }
    }
    gst_util_set_object_arg(G_OBJECT(playbin), "flags", flags);
}
