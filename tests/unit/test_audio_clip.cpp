#include "audio_clip_test.h"

#include <algorithm>

/* How the player is created, and how a request starts or fails to start. */

namespace
{

template <typename Value> Value property(gpointer object, const char *name)
{
    Value value{};
    g_object_get(object, name, &value, nullptr);
    return value;
}

std::string text_property(gpointer object, const char *name)
{
    g_autofree char *text = property<char *>(object, name);
    return text ? text : "none";
}

GstElement *sink_of(GstElement *pipeline)
{
    GstElement *sink = property<GstElement *>(pipeline, "audio-sink");
    gst_object_unref(sink); /* the pipeline keeps it */
    return sink;
}

class AudioClipStart : public AudioClipTest
{
  protected:
    /* Starts a request and expects this error, an idle player, no event and no notice. */
    void expect_refusal(const std::string &error)
    {
        EXPECT_EQ(start(), error);
        EXPECT_FALSE(audio_clip_is_active(clip));
        EXPECT_EQ(audio_clip_count_calls("file "), 0u);
        EXPECT_EQ(audio_clip_count_calls("playing "), 0u);
        EXPECT_EQ(audio_clip_count_calls("stopped "), 0u);
        EXPECT_EQ(audio_clip_count_calls("finished"), 0u);
        const Calls calls = take_calls();
        EXPECT_EQ(calls.back(), "playlist_clear");
    }

    /* Returns the level of the pipeline's own volume element. */
    double filter_volume()
    {
        g_autoptr(GstElement) filter = property<GstElement *>(fakes.pipeline, "audio-filter");
        return filter ? property<double>(filter, "volume") : -1;
    }
};

using AudioClipCreation = AudioClipTest;
using AudioClipState = AudioClipTest;

} // namespace

TEST_F(AudioClipCreation, TriesTheVendorSinkFirst)
{
    audio_clip_unref(clip);
    take_calls();
    clip = audio_clip_ref();
    EXPECT_EQ(take_calls(), Calls({"make veskaudiosink 'veskaudiosink'", "playlist_new"}));
}

TEST_F(AudioClipCreation, SaysThatThereIsNoVendorSink)
{
    audio_clip_unref(clip);
    clear_log();
    clip = audio_clip_ref();
    expect_log(G_LOG_LEVEL_INFO, "Vesk audiosink not supported");
    expect_no_log();
}

TEST_F(AudioClipCreation, OwnsAndNamesTheVendorSink)
{
    use_vendor_sink();
    ASSERT_NE(fakes.vesk_sink, nullptr);
    EXPECT_FALSE(g_object_is_floating(fakes.vesk_sink));
    EXPECT_EQ(text_property(fakes.vesk_sink, "source-id"), "BRIMOSonoBrik");
}

TEST_F(AudioClipCreation, SaysNothingAboutAVendorSinkThatIsThere)
{
    audio_clip_unref(clip);
    clear_log();
    fakes.missing_elements.clear();
    clip = audio_clip_ref();
    expect_no_log();
}

TEST_F(AudioClipCreation, MakesAnIdlePlayer)
{
    EXPECT_FALSE(audio_clip_is_active(clip));
}

TEST_F(AudioClipCreation, AlwaysGivesTheSamePlayer)
{
    AudioClip *first = clip;
    audio_clip_unref(clip);
    clip = audio_clip_ref();
    EXPECT_EQ(clip, first);
}

TEST_F(AudioClipState, IsIdleForNull)
{
    fakes.note_locks = true;
    EXPECT_FALSE(audio_clip_is_active(nullptr));
    EXPECT_EQ(take_calls(), Calls());
}

TEST_F(AudioClipState, IsReadUnderTheStateLock)
{
    fakes.note_locks = true;
    audio_clip_is_active(clip);
    EXPECT_EQ(take_calls(), Calls({"lock state", "unlock state"}));
}

TEST_F(AudioClipState, IsActiveOnceARequestPlays)
{
    start_playing();
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipStart, TakesTheStepsInOrderUnderTheStateLockAlone)
{
    fakes.note_locks = true;
    EXPECT_EQ(start("location=/clips/*.wav"), "");
    EXPECT_EQ(take_calls(), Calls({
                                "lock state",
                                "parse location=/clips/*.wav, defaults none 100 0 0 -1 -1 none",
                                "add /clips/door.wav",
                                "draw, not none",
                                "make playbin 'play audio clip'",
                                "make alsasink 'alsasink'",
                                "watch at priority 0",
                                "connect source-setup",
                                "set PLAYING",
                                "file /clips/door.wav on 0 -1 -1",
                                "playing on 0 -1 -1",
                                "unlock state",
                            }));
}

TEST_F(AudioClipStart, GivesThePipelineTheClip)
{
    fakes.uris = {"file:///clips/bell.ogg"};
    start_playing();
    EXPECT_EQ(text_property(fakes.pipeline, "uri"), "file:///clips/bell.ogg");
}

TEST_F(AudioClipStart, PlaysUnchangedLevelAtVolume100)
{
    start_playing();
    EXPECT_EQ(property<double>(fakes.pipeline, "volume"), 1.0);
}

TEST_F(AudioClipStart, MutesAtVolume0)
{
    fakes.volume = 0;
    start_playing();
    EXPECT_EQ(property<double>(fakes.pipeline, "volume"), 0.0);
    EXPECT_EQ(filter_volume(), 0.0);
}

TEST_F(AudioClipStart, AmplifiesTenTimesAtVolume1000)
{
    fakes.volume = 1000;
    start_playing();
    EXPECT_EQ(property<double>(fakes.pipeline, "volume"), 10.0);
    EXPECT_EQ(filter_volume(), 10.0);
}

TEST_F(AudioClipStart, DoesNotRoundTheVolume)
{
    fakes.volume = 33;
    start_playing();
    EXPECT_EQ(property<double>(fakes.pipeline, "volume"), 0.33);
}

TEST_F(AudioClipStart, DecodesNeitherVideoNorSubtitles)
{
    start_playing();
    GValue flags = G_VALUE_INIT;
    g_object_get_property(G_OBJECT(fakes.pipeline.load()), "flags", &flags);
    auto *names = static_cast<GFlagsClass *>(g_type_class_peek(G_VALUE_TYPE(&flags)));
    EXPECT_EQ(g_value_get_flags(&flags), g_flags_get_value_by_nick(names, "audio")->value);
    g_value_unset(&flags);
}

TEST_F(AudioClipStart, OpensTheChosenAlsaDevice)
{
    fakes.alsa_device = "device2_output1";
    start_playing();
    EXPECT_EQ(text_property(sink_of(fakes.pipeline), "device"), "device2_output1");
}

TEST_F(AudioClipStart, SetsTheLatencyOfTheAlsaSink)
{
    start_playing();
    EXPECT_EQ(property<gint64>(sink_of(fakes.pipeline), "latency-time"), 20000);
}

TEST_F(AudioClipStart, SetsTheLatencyOfThePipeline)
{
    start_playing();
    EXPECT_EQ(gst_pipeline_get_latency(GST_PIPELINE(fakes.pipeline.load())), 100 * GST_MSECOND);
}

TEST_F(AudioClipStart, PlaysThroughTheVendorSinkWhereThereIsOne)
{
    use_vendor_sink();
    start_playing();
    EXPECT_EQ(sink_of(fakes.pipeline), fakes.vesk_sink);
    EXPECT_EQ(property<gint64>(fakes.vesk_sink, "latency-time"), 20000);
}

TEST_F(AudioClipStart, IgnoresTheOutputOptionsWithTheVendorSink)
{
    use_vendor_sink();
    fakes.audio_output = 3;
    fakes.audio_device_id = 2;
    fakes.audio_output_id = 1;
    EXPECT_EQ(start("audiooutput=3"), "");
    EXPECT_EQ(audio_clip_count_calls("parse audiooutput=3, defaults none 100 0 withheld"), 1u);
    EXPECT_EQ(audio_clip_count_calls("make alsasink"), 0u);
    EXPECT_EQ(audio_clip_count_calls("file /clips/door.wav on 0 -1 -1"), 1u);
    EXPECT_EQ(audio_clip_count_calls("playing on 0 -1 -1"), 1u);
}

TEST_F(AudioClipStart, TellsTheEventsWhichOutputPlays)
{
    fakes.audio_output = -1;
    fakes.audio_device_id = 2;
    fakes.audio_output_id = 4;
    EXPECT_EQ(start(), "");
    EXPECT_EQ(take_calls("file "), Calls({"file /clips/door.wav on -1 2 4"}));
}

TEST_F(AudioClipStart, TellsTheEventsThatTheOutputPlays)
{
    fakes.audio_output = -1;
    fakes.audio_device_id = 2;
    fakes.audio_output_id = 4;
    EXPECT_EQ(start(), "");
    EXPECT_EQ(take_calls("playing "), Calls({"playing on -1 2 4"}));
}

TEST_F(AudioClipStart, TellsTheEventsThePathInsteadOfTheUri)
{
    fakes.uris = {"file:///clips/two%20words%25.wav"};
    EXPECT_EQ(start(), "");
    EXPECT_EQ(take_calls("file "), Calls({"file /clips/two words%.wav on 0 -1 -1"}));
}

TEST_F(AudioClipStart, DoesNotChainWithoutRepeat)
{
    EXPECT_EQ(start(), "");
    EXPECT_EQ(take_calls("connect about-to-finish"), Calls());
}

TEST_F(AudioClipStart, ChainsWithARepeat)
{
    fakes.repeat = 1;
    EXPECT_EQ(start(), "");
    EXPECT_EQ(take_calls("connect about"), Calls({"connect about-to-finish"}));
}

TEST_F(AudioClipStart, ChainsWithoutEnd)
{
    fakes.repeat = -1;
    EXPECT_EQ(start(), "");
    EXPECT_EQ(take_calls("connect about"), Calls({"connect about-to-finish"}));
}

TEST_F(AudioClipStart, ChainsBeforeItPlays)
{
    fakes.repeat = 1;
    EXPECT_EQ(start(), "");
    const Calls calls = take_calls();
    const auto connected = std::find(calls.begin(), calls.end(), "connect about-to-finish");
    ASSERT_NE(connected, calls.end());
    EXPECT_NE(std::find(connected, calls.end(), "set PLAYING"), calls.end());
}

TEST_F(AudioClipStart, PlaysOnWhenItCannotChain)
{
    fakes.repeat = 1;
    fakes.connect_fails = true;
    EXPECT_EQ(start(), "");
    expect_log(G_LOG_LEVEL_WARNING, "Could not connect to about-to-finish signal.");
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipStart, TakesAnAsynchronousChangeForSuccess)
{
    fakes.play_result = GST_STATE_CHANGE_ASYNC;
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipStart, TakesAChangeWithoutPrerollForSuccess)
{
    fakes.play_result = GST_STATE_CHANGE_NO_PREROLL;
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipStart, RefusesASecondRequest)
{
    start_playing();
    EXPECT_EQ(start(), "A clip is already playing.");
}

TEST_F(AudioClipStart, LeavesThePlayingRequestAloneWhenItRefusesASecond)
{
    start_playing();
    GstElement *pipeline = fakes.pipeline;
    start();
    EXPECT_EQ(audio_clip_count_calls("playlist_clear"), 0u);
    EXPECT_EQ(audio_clip_count_calls("add "), 0u);
    EXPECT_EQ(fakes.pipeline, pipeline);
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipStart, RefusesBadOptions)
{
    fakes.parse_result = false;
    g_autofree char *error = audio_clip_start(clip, "volume=loud&%41");
    EXPECT_STREQ(error, "Failed to parse/validate option string: 'volume=loud&%41'");
}

TEST_F(AudioClipStart, RefusesNullOptions)
{
    fakes.parse_result = false;
    g_autofree char *error = audio_clip_start(clip, nullptr);
    EXPECT_STREQ(error, "Failed to parse/validate option string: '(null)'");
}

TEST_F(AudioClipStart, FailsForANullPlayer)
{
    g_autofree char *error = audio_clip_start(nullptr, "location=/clips/door.wav");
    EXPECT_STREQ(error, "There is no player.");
    EXPECT_EQ(take_calls(), Calls());
}

TEST_F(AudioClipStart, LooksForNoFilesAfterBadOptions)
{
    fakes.parse_result = false;
    expect_refusal("Failed to parse/validate option string: 'location=/clips/door.wav'");
    start();
    EXPECT_EQ(take_calls("add "), Calls());
}

TEST_F(AudioClipStart, RefusesALocationWithoutFiles)
{
    fakes.add_result = false;
    fakes.location = "/clips/none-*.wav";
    expect_refusal("No supported file(s) found at '/clips/none-*.wav'.");
}

TEST_F(AudioClipStart, RefusesWhenNoFileIsDrawn)
{
    fakes.uris.clear();
    expect_refusal("Could not retrieve any media/audio file");
}

TEST_F(AudioClipStart, RefusesAFileThatHasBecomeADevice)
{
    fakes.uris = {"file:///dev/null"};
    expect_refusal("No supported file(s) found at '/clips/door.wav'.");
}

/* Nothing that takes the place of the path later can block the source. */
TEST_F(AudioClipStart, PinsTheFileOfTheSource)
{
    start_playing();
    g_autoptr(GstElement) source = gst_element_factory_make("filesrc", nullptr);
    gst_object_ref_sink(source);
    g_object_set(source, "location", "/proc/self/exe", nullptr);
    g_signal_emit_by_name(fakes.pipeline, "source-setup", source);
    EXPECT_TRUE(text_property(source, "location").starts_with("/proc/self/fd/"));
}

TEST_F(AudioClipStart, RefusesWithoutPlaybin)
{
    fakes.missing_elements.insert("playbin");
    expect_refusal("Error playing clip: Could not create playbin..");
}

TEST_F(AudioClipStart, RefusesWithoutAnySink)
{
    fakes.missing_elements.insert("alsasink");
    expect_refusal("Error playing clip: Could not create alsasink..");
}

TEST_F(AudioClipStart, DropsThePipelineWithoutASink)
{
    fakes.missing_elements.insert("alsasink");
    start();
    EXPECT_TRUE(pipeline_released());
    fakes.missing_elements.erase("alsasink");
    EXPECT_EQ(start(), "");
}

TEST_F(AudioClipStart, RefusesWithoutABus)
{
    fakes.bus_missing = true;
    expect_refusal("Error playing clip: Could not get pipeline bus..");
}

TEST_F(AudioClipStart, KeepsThePipelineWithoutABusUntilAStop)
{
    fakes.bus_missing = true;
    start();
    fakes.bus_missing = false;
    EXPECT_NE(fakes.pipeline, nullptr);
    expect_refusal("Error playing clip: Failed to request a pipeline, already playing..");
    audio_clip_stop(clip, nullptr);
    EXPECT_TRUE(pipeline_released());
    EXPECT_EQ(start(), "");
}

TEST_F(AudioClipStart, PicksAFileBeforeItChecksForAStalePipeline)
{
    fakes.bus_missing = true;
    start();
    take_calls();
    start();
    EXPECT_EQ(audio_clip_count_calls("draw"), 1u);
    EXPECT_EQ(audio_clip_count_calls("make "), 0u);
}

TEST_F(AudioClipStart, RefusesAPipelineThatCannotPlay)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    expect_refusal("Error playing clip: Could not set receive pipeline to playing..");
}

TEST_F(AudioClipStart, TearsAPipelineDownThatCannotPlay)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    start();
    EXPECT_EQ(take_calls("set "), Calls({"set PLAYING", "set NULL"}));
    EXPECT_TRUE(pipeline_released());
    EXPECT_FALSE(source_exists(fakes.watch_id));
}

TEST_F(AudioClipStart, IsReadyForTheNextRequestAfterAFailure)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    start();
    fakes.play_result = GST_STATE_CHANGE_SUCCESS;
    EXPECT_EQ(start(), "");
}

TEST_F(AudioClipStart, OutlivesAPipelineThatNeitherPlaysNorStops)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    expect_refusal("Error playing clip: Could not set receive pipeline to playing..");
    expect_log(LOG_LEVEL_ERROR, "Could not set the pipeline to GST_STATE_NULL.");
}

TEST_F(AudioClipStart, RemovesTheWatchOfAStuckPipeline)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    start();
    EXPECT_FALSE(source_exists(fakes.watch_id));
    clear_log();
}

TEST_F(AudioClipStart, RefusesWhileAPipelineIsStuck)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    start();
    clear_log();
    expect_refusal("Error playing clip: Failed to request a pipeline, already playing..");
}

TEST_F(AudioClipStart, PlaysAgainOnceAStopHasFreedAStuckPipeline)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    start();
    clear_log();
    fakes.play_result = GST_STATE_CHANGE_SUCCESS;
    fakes.null_result = -1;
    audio_clip_stop(clip, nullptr);
    EXPECT_TRUE(pipeline_released());
    EXPECT_EQ(start(), "");
}
