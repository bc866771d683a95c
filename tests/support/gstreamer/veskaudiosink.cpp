/*
 * A fake of the element "veskaudiosink", which a vendor's platform provides: an audio sink with the
 * property "source-id". It plays at the pace of the monotonic clock, into the recording (see
 * recording.h) in the folder that the environment variable VESKAUDIOSINK_FOLDER names. Each time it
 * opens, it adds the event "open source-id=..." to the recording.
 */

#include "recording.h"

#include <algorithm>
#include <cstring>
#include <gst/audio/audio.h>

#define PACKAGE "veskaudiosink"

struct VeskAudioSink {
    GstAudioSink parent;

    GMutex lock; /* guards all fields below */
    GCond changed;
    char *source_id; /* owned, may be null */
    Recording recording;
    GByteArray *pending;  /* written but not yet played; null while closed */
    size_t frame_size;    /* bytes */
    size_t buffer_size;   /* bytes that `pending` may hold */
    uint32_t rate;        /* frames a second */
    bool running;         /* true while there are frames to play */
    uint64_t start_time;  /* when the clock last started */
    uint64_t played;      /* frames played since then */
    unsigned reset_count; /* a waiting writer returns when it changes */
};

struct VeskAudioSinkClass {
    GstAudioSinkClass parent_class;
};

G_DEFINE_TYPE(VeskAudioSink, vesk_audio_sink, GST_TYPE_AUDIO_SINK)

namespace
{

enum { PROPERTY_SOURCE_ID = 1 };

VeskAudioSink *get_sink(gpointer object)
{
    return reinterpret_cast<VeskAudioSink *>(object);
}

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("audio/x-raw, format = (string) { S16LE, S24LE, S32LE }, "
                    "layout = (string) interleaved, rate = (int) [ 8000, 192000 ], "
                    "channels = (int) [ 1, 8 ]"));

/* Moves the frames whose time has come from `pending` to the recording. Caller holds the lock. */
void play(VeskAudioSink *sink)
{
    if (!sink->running)
        return;
    const uint64_t passed =
        recording_time_to_frames(recording_get_time() - sink->start_time, sink->rate) -
        sink->played;
    const uint64_t count = std::min<uint64_t>(passed, sink->pending->len / sink->frame_size);
    const int r = recording_append(&sink->recording, sink->pending->data, count);
    if (r < 0)
        GST_ELEMENT_ERROR(sink, RESOURCE, WRITE, ("The recording cannot be written."),
                          ("%s", g_strerror(-r)));
    g_byte_array_remove_range(sink->pending, 0, static_cast<guint>(count * sink->frame_size));
    sink->played += count;
    if (sink->pending->len == 0)
        sink->running = false;
}

gboolean sink_open(GstAudioSink *object)
{
    VeskAudioSink *sink = get_sink(object);
    const char *folder = g_getenv("VESKAUDIOSINK_FOLDER");
    g_mutex_lock(&sink->lock);
    const int r = folder ? recording_open(&sink->recording, folder) : -ENOENT;
    if (r == 0)
        recording_add_event(&sink->recording, "open source-id=%s",
                            sink->source_id ? sink->source_id : "");
    g_mutex_unlock(&sink->lock);
    if (r < 0)
        GST_ELEMENT_ERROR(sink, RESOURCE, OPEN_WRITE, ("The recording cannot be opened."),
                          ("%s: %s", folder ? folder : "VESKAUDIOSINK_FOLDER", g_strerror(-r)));
    return r == 0;
}

gboolean sink_prepare(GstAudioSink *object, GstAudioRingBufferSpec *wanted)
{
    VeskAudioSink *sink = get_sink(object);
    const GstAudioInfo *info = &wanted->info;
    const RecordingFormat format = {
        .rate = static_cast<uint32_t>(GST_AUDIO_INFO_RATE(info)),
        .channels = static_cast<uint32_t>(GST_AUDIO_INFO_CHANNELS(info)),
        .bits = static_cast<uint32_t>(GST_AUDIO_INFO_WIDTH(info)),
    };
    g_mutex_lock(&sink->lock);
    const int r = recording_set_format(&sink->recording, &format);
    if (r == 0)
        recording_add_event(&sink->recording,
                            "params file=%03u rate=%u channels=%u latency-time=%" G_GUINT64_FORMAT,
                            sink->recording.number, format.rate, format.channels,
                            wanted->latency_time);
    sink->pending = g_byte_array_new();
    sink->frame_size = static_cast<size_t>(GST_AUDIO_INFO_BPF(info));
    sink->buffer_size =
        static_cast<size_t>(wanted->segsize) * static_cast<size_t>(wanted->segtotal);
    sink->rate = format.rate;
    sink->running = false;
    g_mutex_unlock(&sink->lock);
    return r == 0;
}

gint sink_write(GstAudioSink *object, gpointer data, guint length)
{
    VeskAudioSink *sink = get_sink(object);
    g_mutex_lock(&sink->lock);
    const unsigned reset_count = sink->reset_count;
    play(sink);
    while (sink->pending->len + length > sink->buffer_size && sink->pending->len > 0 &&
           sink->reset_count == reset_count) {
        const uint64_t excess =
            (sink->pending->len + length - sink->buffer_size + sink->frame_size - 1) /
            sink->frame_size;
        const uint64_t time =
            sink->start_time + recording_frames_to_time(sink->played + excess, sink->rate);
        g_cond_wait_until(&sink->changed, &sink->lock, static_cast<gint64>(time / 1000 + 1));
        play(sink);
    }
    if (sink->reset_count == reset_count) {
        g_byte_array_append(sink->pending, static_cast<const guint8 *>(data), length);
        if (!sink->running) {
            sink->running = true;
            sink->start_time = recording_get_time();
            sink->played = 0;
        }
    }
    g_mutex_unlock(&sink->lock);
    return static_cast<gint>(length);
}

guint sink_delay(GstAudioSink *object)
{
    VeskAudioSink *sink = get_sink(object);
    g_mutex_lock(&sink->lock);
    guint frames = 0;
    if (sink->pending) {
        play(sink);
        frames = static_cast<guint>(sink->pending->len / sink->frame_size);
    }
    g_mutex_unlock(&sink->lock);
    return frames;
}

void sink_reset(GstAudioSink *object)
{
    VeskAudioSink *sink = get_sink(object);
    g_mutex_lock(&sink->lock);
    if (sink->pending) {
        play(sink);
        g_byte_array_set_size(sink->pending, 0);
        sink->running = false;
    }
    sink->reset_count++;
    g_cond_signal(&sink->changed);
    g_mutex_unlock(&sink->lock);
}

gboolean sink_unprepare(GstAudioSink *object)
{
    VeskAudioSink *sink = get_sink(object);
    g_mutex_lock(&sink->lock);
    g_byte_array_unref(sink->pending);
    sink->pending = nullptr;
    sink->running = false;
    g_mutex_unlock(&sink->lock);
    return TRUE;
}

gboolean sink_close(GstAudioSink *object)
{
    VeskAudioSink *sink = get_sink(object);
    g_mutex_lock(&sink->lock);
    recording_add_event(&sink->recording, "close");
    recording_close(&sink->recording);
    g_mutex_unlock(&sink->lock);
    return TRUE;
}

void sink_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    VeskAudioSink *sink = get_sink(object);
    if (id != PROPERTY_SOURCE_ID) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    g_mutex_lock(&sink->lock);
    g_free(sink->source_id);
    sink->source_id = g_value_dup_string(value);
    g_mutex_unlock(&sink->lock);
}

void sink_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    VeskAudioSink *sink = get_sink(object);
    if (id != PROPERTY_SOURCE_ID) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    g_mutex_lock(&sink->lock);
    g_value_set_string(value, sink->source_id);
    g_mutex_unlock(&sink->lock);
}

void sink_finalize(GObject *object)
{
    VeskAudioSink *sink = get_sink(object);
    g_free(sink->source_id);
    g_cond_clear(&sink->changed);
    g_mutex_clear(&sink->lock);
    G_OBJECT_CLASS(vesk_audio_sink_parent_class)->finalize(object);
}

gboolean plugin_init(GstPlugin *plugin)
{
    return gst_element_register(plugin, "veskaudiosink", GST_RANK_NONE, vesk_audio_sink_get_type());
}

} // namespace

static void vesk_audio_sink_init(VeskAudioSink *sink)
{
    g_mutex_init(&sink->lock);
    g_cond_init(&sink->changed);
    sink->recording.folder = sink->recording.events = sink->recording.wav = -1;
}

static void vesk_audio_sink_class_init(VeskAudioSinkClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = sink_set_property;
    object_class->get_property = sink_get_property;
    object_class->finalize = sink_finalize;
    g_object_class_install_property(
        object_class, PROPERTY_SOURCE_ID,
        g_param_spec_string("source-id", "Source ID", "Who plays", nullptr,
                            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));

    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_set_static_metadata(element_class, "Recording audio sink", "Sink/Audio",
                                          "Plays at the pace of the clock into a recording",
                                          "The Sonobrik developers");

    GstAudioSinkClass *sink_class = GST_AUDIO_SINK_CLASS(klass);
    sink_class->open = sink_open;
    sink_class->prepare = sink_prepare;
    sink_class->write = sink_write;
    sink_class->delay = sink_delay;
    sink_class->reset = sink_reset;
    sink_class->unprepare = sink_unprepare;
    sink_class->close = sink_close;
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, veskaudiosink,
                  "An audio sink that plays into a recording", plugin_init, "1.0", "MIT/X11",
                  "sonobrik", "https://localhost/")
