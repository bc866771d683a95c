#include "clip_volume.h"

#include "log_test.h"
#include "temp_dir.h"

namespace
{

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

    void use_sink(const char *description)
    {
        sink = gst_parse_bin_from_description(description, true, nullptr);
        g_object_set(playbin, "audio-sink", sink, nullptr);
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
    use_sink("fakesink");
    clip_volume_set(playbin, sink, 0.5);
    EXPECT_TRUE(has_filter());
}

TEST_F(ClipVolume, IsNotSetWithoutAVolumeElement)
{
    use_sink("fakesink");
    GstRegistry *registry = gst_registry_get();
    g_autoptr(GstPluginFeature) feature = gst_registry_lookup_feature(registry, "volume");
    gst_registry_remove_feature(registry, feature);
    clip_volume_set(playbin, sink, 0.5);
    gst_registry_add_feature(registry, feature);
    EXPECT_FALSE(has_filter());
    expect_log(G_LOG_LEVEL_WARNING, "Could not create volume.");
    expect_no_log();
}

/* The filter's converters take a fifth of the time of a start. */
TEST_F(ClipVolume, NeedsNoFilterAtLevelOne)
{
    use_sink("fakesink");
    clip_volume_set(playbin, sink, 1.0);
    EXPECT_FALSE(has_filter());
}

/* A filter as well would apply the level twice. */
TEST_F(ClipVolume, IsLeftToASinkThatHasAVolume)
{
    use_sink("volume name=own ! fakesink");
    clip_volume_set(playbin, sink, 0.5);
    EXPECT_FALSE(has_filter());

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
    EXPECT_EQ(level, 0.5);
    gst_element_set_state(playbin, GST_STATE_NULL);
}
