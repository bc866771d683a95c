#include "source_uri.h"

namespace
{

GstPadProbeReturn answer_uri(GstPad *, GstPadProbeInfo *info, gpointer uri)
{
    GstQuery *query = GST_PAD_PROBE_INFO_QUERY(info);
    if (GST_QUERY_TYPE(query) != GST_QUERY_URI) {
        return GST_PAD_PROBE_OK;
    }
    gst_query_set_uri(query, static_cast<const char *>(uri));
    return GST_PAD_PROBE_HANDLED;
}

} // namespace

void source_uri_set(GstElement *source, const char *uri)
{
    g_autoptr(GstPad) pad = gst_element_get_static_pad(source, "src");
    if (pad) {
        const auto type = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_QUERY_UPSTREAM |
                                                       GST_PAD_PROBE_TYPE_PUSH);
        gst_pad_add_probe(pad, type, answer_uri, g_strdup(uri), g_free);
    }
}
