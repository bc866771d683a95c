#include "clip_volume.h"

#include "log_test.h"
#include "temp_dir.h"

namespace
{

/* A sink that makes its elements, a volume among them, only when it becomes ready. */
using LateSink = GstBin;
using LateSinkClass = GstBinClass;

G_DEFINE_TYPE(LateSink, late_sink, GST_TYPE_BIN)

GstStateChangeReturn late_sink_change_state(GstElement *element, GstStateChange change)
{
    if (change == GST_STATE_CHANGE_NULL_TO_READY) {
        GstElement *own = gst_element_factory_make("volume", "own");
        GstElement *end = gst_element_factory_make("fakesink", nullptr);
        gst_bin_add_many(GST_BIN(element), own, end, nullptr);
        gst_element_link(own, end);
        g_autoptr(GstPad) pad = gst_element_get_static_pad(own, "sink");
        auto *ghost = GST_GHOST_PAD(gst_element_get_static_pad(element, "sink"));
        gst_ghost_pad_set_target(ghost, pad);
        gst_object_unref(ghost);
    }
    return GST_ELEMENT_CLASS(late_sink_parent_class)->change_state(element, change);
}

void late_sink_class_init(LateSinkClass *sink_class)
{
    GST_ELEMENT_CLASS(sink_class)->change_state = late_sink_change_state;
}

void late_sink_init(LateSink *sink)
{
    GST_OBJECT_FLAG_SET(sink, GST_ELEMENT_FLAG_SINK);
    gst_element_add_pad(GST_ELEMENT(sink), gst_ghost_pad_new_no_target("sink", GST_PAD_SINK));
}

class ClipVolume : public LogTest
{
  protected:
    ClipVolume()
    {
        gst_init(nullptr, nullptr);
        playbin = gst_element_factory_make("playbin", nullptr);
        gst_object_ref_sink(playbin);
    }

    ~ClipVolume() override
    {
        gst_object_unref(playbin);
    }

    void use_sink(GstElement *element)
    {
        sink = element;
        g_object_set(playbin, "audio-sink", sink, nullptr);
    }

    void use_sink(const char *description)
    {
        use_sink(gst_parse_bin_from_description(description, true, nullptr));
    }

    void prepare(double level)
    {
        g_object_set(playbin, "volume", level, nullptr);
        clip_volume_prepare(playbin, sink, level);
    }

    /* Starts to play a clip, and expects that the sink's element "own" has this level. */
    void expect_own_level(double expected)
    {
        const TempDir folder;
        /* 100 samples of mu-law at 8 kHz. */
        const std::string clip =
            std::string(".snd\0\0\0\x18\0\0\0\x64\0\0\0\1\0\0\x1f\x40\0\0\0\1", 24) +
            std::string(100, '\x7f');
        const std::string uri = "file://" + folder.file("a.au", clip);
        g_object_set(playbin, "uri", uri.c_str(), nullptr);
        gst_element_set_state(playbin, GST_STATE_PAUSED);
        EXPECT_EQ(gst_element_get_state(playbin, nullptr, nullptr, 60 * GST_SECOND),
                  GST_STATE_CHANGE_SUCCESS);
        g_autoptr(GstElement) own = gst_bin_get_by_name(GST_BIN(sink), "own");
        double level = 0;
        g_object_get(own, "volume", &level, nullptr);
        EXPECT_EQ(level, expected);
        gst_element_set_state(playbin, GST_STATE_NULL);
    }

    bool has_filter() const
    {
        g_autoptr(GstElement) filter = nullptr;
        g_object_get(playbin, "audio-filter", &filter, nullptr);
        return filter != nullptr;
    }

    GstElement *playbin;
    GstElement *sink = nullptr; /* borrowed from `playbin` */
};

} // namespace

TEST_F(ClipVolume, IsSetByAFilter)
{
    use_sink(gst_element_factory_make("fakesink", nullptr));
    prepare(0.5);
    EXPECT_TRUE(has_filter());
}

TEST_F(ClipVolume, IsNotSetWithoutAVolumeElement)
{
    use_sink(gst_element_factory_make("fakesink", nullptr));
    GstRegistry *registry = gst_registry_get();
    g_autoptr(GstPluginFeature) feature = gst_registry_lookup_feature(registry, "volume");
    gst_registry_remove_feature(registry, feature);
    prepare(0.5);
    gst_registry_add_feature(registry, feature);
    EXPECT_FALSE(has_filter());
    expect_log(G_LOG_LEVEL_WARNING, "Could not create volume.");
    expect_no_log();
}

/* The filter's converters take a fifth of the time of a start. */
TEST_F(ClipVolume, NeedsNoFilterAtLevelOne)
{
    use_sink(gst_element_factory_make("fakesink", nullptr));
    prepare(1.0);
    EXPECT_FALSE(has_filter());
}

/* A filter as well would apply the level twice. */
TEST_F(ClipVolume, IsLeftToASinkThatHasAVolume)
{
    use_sink("volume name=own ! fakesink");
    prepare(0.5);
    EXPECT_FALSE(has_filter());
    expect_own_level(0.5);
}

TEST_F(ClipVolume, IsLeftToASinkThatGetsAVolumeWhenItBecomesReady)
{
    use_sink(GST_ELEMENT(g_object_new(late_sink_get_type(), nullptr)));
    prepare(0.5);
    EXPECT_FALSE(has_filter());
    expect_own_level(0.5);
}
