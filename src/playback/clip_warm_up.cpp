#include "clip_warm_up.h"

#include <cstring>
#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <gst/pbutils/pbutils.h>
#include <iterator>

#include "clip_rehearsal.h"
#include "memory_trim.h"

namespace
{

/* The player uses the device's own sink if there is one. */
constexpr const char *VENDOR_SINK = "veskaudiosink";
constexpr const char *ALSA_SINK = "alsasink";

void load_element(const char *name)
{
    if (strcmp(name, ALSA_SINK) == 0) {
        g_autoptr(GstElementFactory) vendor = gst_element_factory_find(VENDOR_SINK);
        if (vendor) {
            return;
        }
    }
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
    if (!factory) {
        return;
    }
    g_autoptr(GstPluginFeature) loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory));
    const GType type =
        loaded ? gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded)) : G_TYPE_INVALID;
    if (type != G_TYPE_INVALID) {
        g_type_class_ref(type); /* never released: GLib would unload the class */
    }
}

/* Loads the functions that recognise formats. Their plugin has no element to create. */
void load_type_finders(const char *plugin_name)
{
    GstPlugin *plugin = gst_plugin_load_by_name(plugin_name);
    gst_clear_object(&plugin); /* the plugin stays loaded */
}

void load_discoverer(const char *)
{
    g_type_class_ref(GST_TYPE_DISCOVERER);
}

/* The first search for a decoder makes GStreamer parse the caps of all decoders, which it keeps. */
void parse_caps(const char *media_type)
{
    GList *factories = gst_element_factory_list_get_elements(GST_ELEMENT_FACTORY_TYPE_DECODABLE,
                                                             GST_RANK_MARGINAL);
    g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(media_type);
    GList *decoders = gst_element_factory_list_filter(factories, caps, GST_PAD_SINK, FALSE);
    gst_plugin_feature_list_free(decoders);
    gst_plugin_feature_list_free(factories);
}

/* The first resampler of the process sets up ORC, the library whose loops all resamplers use. */
void set_up_resampling(const char *)
{
    gst_audio_resampler_free(
        gst_audio_resampler_new(GST_AUDIO_RESAMPLER_METHOD_NEAREST, GST_AUDIO_RESAMPLER_FLAG_NONE,
                                GST_AUDIO_FORMAT_S16, 1, 44100, 48000, nullptr));
}

/* The sink fills its buffer with silence by a function that is compiled when it is first called. */
void set_up_silence(const char *)
{
    gint16 samples[32];
    gst_audio_format_info_fill_silence(gst_audio_format_get_info(GST_AUDIO_FORMAT_S16), samples,
                                       sizeof samples);
}

struct Step {
    void (*load)(const char *name);
    const char *name;
};

/*
 * The elements that the discoverer and the player use for a WAV file, then those that the other
 * formats need. Each step takes about 1 ms at most.
 */
constexpr Step steps[] = {
    {load_element, "uridecodebin"},
    {load_discoverer, nullptr},
    {load_element, "filesrc"},
    {load_type_finders, "typefindfunctions"},
    {load_element, "typefind"},
    {load_element, "decodebin"},
    {parse_caps, "audio/x-wav"},
    {load_element, "wavparse"},
    {load_element, "fakesink"},
    {load_element, "playbin"},
    {load_element, "playsink"},
    {load_element, "input-selector"},
    {load_element, "streamsynchronizer"},
    {load_element, "tee"},
    {load_element, "queue"},
    {load_element, "identity"},
    {load_element, "audioconvert"},
    {load_element, "audioresample"},
    {load_element, "volume"},
    {set_up_resampling, nullptr},
    {load_element, ALSA_SINK},
    {set_up_silence, nullptr},
    {load_element, "multiqueue"},
    {load_element, "mpegaudioparse"},
    {load_element, "mpg123audiodec"},
    {load_element, "id3demux"},
    {load_element, "oggdemux"},
    {load_element, "opusdec"},
    {load_element, "vorbisdec"},
    {load_element, "auparse"},
    {load_element, "mulawdec"},
};

GSource *source; /* null while nothing is left to load */
size_t next_step;
bool skips_rehearsal;

gboolean do_step(gpointer)
{
    steps[next_step].load(steps[next_step].name);
    next_step++;
    if (next_step < std::size(steps)) {
        return G_SOURCE_CONTINUE;
    }
    clip_warm_up_stop();
    if (skips_rehearsal) {
        memory_trim_later();
    } else {
        clip_rehearsal_start(memory_trim_later);
    }
    return G_SOURCE_REMOVE;
}

} // namespace

void clip_warm_up_start()
{
    if (source || !gst_is_initialized()) {
        return;
    }
    next_step = 0;
    skips_rehearsal = false;
    source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_LOW);
    g_source_set_callback(source, do_step, nullptr, nullptr);
    g_source_attach(source, nullptr);
}

void clip_warm_up_skip_rehearsal()
{
    skips_rehearsal = true;
}

void clip_warm_up_stop()
{
    clip_rehearsal_stop();
    if (source) {
        g_source_destroy(source);
        g_source_unref(g_steal_pointer(&source));
    }
}
