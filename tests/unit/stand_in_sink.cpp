#include "stand_in_sink.h"

#include <gst/base/gstbasesink.h>

StandInSinkSettings stand_in_sink_settings;

namespace
{

enum Property { DEVICE = 1, LATENCY_TIME, SOURCE_ID };

struct StandInSink {
    GstBaseSink base;
    char *text; /* owned; "device" or "source-id" */
    gint64 latency_time;
};

struct StandInSinkClass {
    GstBaseSinkClass base;
};

std::atomic<int> sinks;
std::atomic<int> streams;
std::atomic<gint64> eos_time;
GstBaseSinkClass *parent_class;

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *)
{
    auto *sink = reinterpret_cast<StandInSink *>(object);
    if (id == LATENCY_TIME) {
        sink->latency_time = g_value_get_int64(value);
    } else {
        g_free(sink->text);
        sink->text = g_value_dup_string(value);
    }
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *)
{
    auto *sink = reinterpret_cast<StandInSink *>(object);
    if (id == LATENCY_TIME) {
        g_value_set_int64(value, sink->latency_time);
    } else {
        g_value_set_string(value, sink->text);
    }
}

void finalize(GObject *object)
{
    g_free(reinterpret_cast<StandInSink *>(object)->text);
    sinks--;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

GstFlowReturn render(GstBaseSink *base, GstBuffer *)
{
    if (stand_in_sink_settings.broken) {
        GST_ELEMENT_ERROR(base, RESOURCE, WRITE, ("The loudspeaker is gone."), (nullptr));
        return GST_FLOW_ERROR;
    }
    return GST_FLOW_OK;
}

gboolean on_event(GstBaseSink *base, GstEvent *event)
{
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
        eos_time = g_get_monotonic_time();
    }
    if (GST_EVENT_TYPE(event) == GST_EVENT_STREAM_START) {
        streams++;
    }
    return parent_class->event(base, event);
}

/* `class_data` is the property that the sink has besides "latency-time". */
void class_init(gpointer klass, gpointer class_data)
{
    parent_class = static_cast<GstBaseSinkClass *>(g_type_class_peek_parent(klass));
    auto *object_class = static_cast<GObjectClass *>(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    const guint property = GPOINTER_TO_UINT(class_data);
    g_object_class_install_property(object_class, property,
                                    g_param_spec_string(property == DEVICE ? "device" : "source-id",
                                                        nullptr, nullptr, nullptr,
                                                        G_PARAM_READWRITE));
    g_object_class_install_property(object_class, LATENCY_TIME,
                                    g_param_spec_int64("latency-time", nullptr, nullptr, 1,
                                                       G_MAXINT64, 10000, G_PARAM_READWRITE));

    auto *element_class = static_cast<GstElementClass *>(klass);
    static GstStaticPadTemplate pad_template = GST_STATIC_PAD_TEMPLATE(
        "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("audio/x-raw"));
    gst_element_class_add_static_pad_template(element_class, &pad_template);
    gst_element_class_set_static_metadata(element_class, "Stand-in sink", "Sink/Audio",
                                          "Discards its samples", "the tests");

    auto *base_class = static_cast<GstBaseSinkClass *>(klass);
    base_class->render = render;
    base_class->event = on_event;
}

void instance_init(GTypeInstance *instance, gpointer)
{
    sinks++;
    gst_base_sink_set_sync(reinterpret_cast<GstBaseSink *>(instance),
                           stand_in_sink_settings.in_real_time);
}

void register_sink(const char *name, const char *type_name, Property property)
{
    const GTypeInfo info = {sizeof(StandInSinkClass),
                            nullptr,
                            nullptr,
                            class_init,
                            nullptr,
                            GUINT_TO_POINTER(property),
                            sizeof(StandInSink),
                            0,
                            instance_init,
                            nullptr};
    const GType type = g_type_register_static(GST_TYPE_BASE_SINK, type_name, &info, GTypeFlags(0));
    gst_element_register(nullptr, name, GST_RANK_NONE, type);
}

} // namespace

void stand_in_sink_register()
{
    register_sink("alsasink", "StandInAlsaSink", DEVICE);
    register_sink("veskaudiosink", "StandInVeskAudioSink", SOURCE_ID);
}

void stand_in_sink_reset()
{
    stand_in_sink_settings.in_real_time = false;
    stand_in_sink_settings.broken = false;
    streams = 0;
}

int stand_in_sink_stream_count()
{
    return streams;
}

int stand_in_sink_count()
{
    return sinks;
}

gint64 stand_in_sink_eos_time()
{
    return eos_time;
}
