/*
 * The floor of playing: a new discoverer for each file, and a playbin with an alsasink for the
 * clip. "location=" is the only option that it knows.
 */

#include "service.h"

#include <cstring>
#include <glob.h>
#include <gst/gst.h>
#include <gst/pbutils/pbutils.h>

namespace
{

constexpr gint64 SINK_LATENCY_TIME_US = 20000;
constexpr GstClockTime PIPELINE_LATENCY = 100 * GST_MSECOND;
constexpr GstClockTime DISCOVERER_TIMEOUT = 5 * GST_SECOND;

GstElement *pipeline;

bool is_audio(const char *path)
{
    g_autoptr(GError) error = nullptr;
    g_autofree char *uri = gst_filename_to_uri(path, nullptr);
    g_autoptr(GstDiscoverer) discoverer = gst_discoverer_new(DISCOVERER_TIMEOUT, &error);
    if (!discoverer || !uri) {
        return false;
    }
    g_autoptr(GstDiscovererInfo) info = gst_discoverer_discover_uri(discoverer, uri, &error);
    return info && gst_discoverer_info_get_result(info) == GST_DISCOVERER_OK;
}

/* Returns the URI of the last audio file that the pattern names, or null. */
char *find_uri(const char *pattern)
{
    glob_t files = {};
    char *uri = nullptr;
    if (glob(pattern, 0, nullptr, &files) == 0) {
        for (size_t i = 0; i < files.gl_pathc; i++) {
            if (is_audio(files.gl_pathv[i])) {
                g_free(uri);
                uri = gst_filename_to_uri(files.gl_pathv[i], nullptr);
            }
        }
    }
    globfree(&files);
    return uri;
}

int start(sd_bus_message *message, void *, sd_bus_error *)
{
    const char *options = nullptr;
    const int r = sd_bus_message_read(message, "s", &options);
    if (r < 0 || !g_str_has_prefix(options, "location=") || pipeline) {
        return -EINVAL;
    }
    g_autofree char *uri = find_uri(options + strlen("location="));
    if (!uri) {
        return -ENOENT;
    }
    pipeline = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("playbin", nullptr)));
    GstElement *sink = gst_element_factory_make("alsasink", nullptr);
    g_object_set(sink, "device", "audiosink0", "latency-time", SINK_LATENCY_TIME_US, nullptr);
    g_object_set(pipeline, "uri", uri, "audio-sink", sink, nullptr);
    gst_util_set_object_arg(G_OBJECT(pipeline), "flags", "audio");
    gst_pipeline_set_latency(GST_PIPELINE(pipeline), PIPELINE_LATENCY);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    return sd_bus_reply_method_return(message, "s", "OK");
}

int stop(sd_bus_message *message, void *, sd_bus_error *)
{
    if (pipeline) {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(g_steal_pointer(&pipeline));
    }
    return sd_bus_reply_method_return(message, "s", "OK");
}

int supported(sd_bus_message *message, void *, sd_bus_error *)
{
    const char *path = nullptr;
    const int r = sd_bus_message_read(message, "s", &path);
    if (r < 0) {
        return r;
    }
    return sd_bus_reply_method_return(message, "s", is_audio(path) ? "OK" : "NOK");
}

const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StartPlayingClip", "s", "s", start, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StopPlayingClip", "s", "s", stop, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SupportedFile", "s", "s", supported, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

int main(int argc, char **argv)
{
    gst_init(nullptr, nullptr);
    return floor_serve(argc, argv, table);
}
