#include "audio_clip_test.h"
#include "stand_in_sink.h"

/* How a request ends, and how the player does. */

namespace
{

using AudioClipStop = AudioClipTest;
using AudioClipBus = AudioClipTest;
using AudioClipUnref = AudioClipTest;

GstMessage *end_of_stream(GstElement *pipeline)
{
    return gst_message_new_eos(GST_OBJECT(pipeline));
}

GstMessage *stream_error(GstElement *element, const char *text)
{
    g_autoptr(GError) error = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, text);
    return gst_message_new_error(GST_OBJECT(element), error, "details for nobody");
}

} // namespace

TEST_F(AudioClipStop, TakesTheStepsInOrderUnderBothLocks)
{
    start_playing();
    fakes.note_locks = true;
    EXPECT_TRUE(audio_clip_stop(clip, "ignored"));
    EXPECT_EQ(take_calls(), Calls({
                                "lock request",
                                "lock state",
                                "set NULL",
                                "playlist_clear",
                                "stopped on 0 -1 -1",
                                "finished",
                                "unlock state",
                                "unlock request",
                            }));
}

TEST_F(AudioClipStop, MakesThePlayerIdle)
{
    start_playing();
    audio_clip_stop(clip, nullptr);
    EXPECT_FALSE(audio_clip_is_active(clip));
}

TEST_F(AudioClipStop, ReleasesThePipelineAndItsSink)
{
    start_playing();
    EXPECT_EQ(stand_in_sink_count(), 1);
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(fakes.pipeline, nullptr);
    EXPECT_EQ(stand_in_sink_count(), 0);
}

TEST_F(AudioClipStop, RemovesTheBusWatch)
{
    start_playing();
    EXPECT_TRUE(source_exists(fakes.watch_id));
    audio_clip_stop(clip, nullptr);
    EXPECT_FALSE(source_exists(fakes.watch_id));
}

TEST_F(AudioClipStop, TellsTheEventsWhichOutputStopped)
{
    fakes.audio_output = -1;
    fakes.audio_device_id = 2;
    fakes.audio_output_id = 4;
    start_playing();
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls("stopped "), Calls({"stopped on -1 2 4"}));
}

TEST_F(AudioClipStop, TellsOnlyTheBusSideWhileIdle)
{
    EXPECT_TRUE(audio_clip_stop(clip, nullptr));
    EXPECT_EQ(take_calls(), Calls({"finished"}));
}

TEST_F(AudioClipStop, TellsTheEventsOnce)
{
    start_playing();
    audio_clip_stop(clip, nullptr);
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls("stopped "), Calls({"stopped on 0 -1 -1"}));
}

TEST_F(AudioClipStop, ReleasesAStalePipelineWithoutAnEvent)
{
    fakes.bus_missing = true;
    start();
    take_calls();
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls(), Calls({"set NULL", "playlist_clear", "finished"}));
}

TEST_F(AudioClipStop, KeepsTheVendorSinkForTheNextRequest)
{
    use_vendor_sink();
    for (int request = 0; request < 3; request++) {
        start_playing();
        audio_clip_stop(clip, nullptr);
    }
    EXPECT_NE(fakes.vesk_sink, nullptr);
    EXPECT_EQ(stand_in_sink_count(), 1);
}

TEST_F(AudioClipStop, TakesAChangeWithoutPrerollForSuccess)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_NO_PREROLL;
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(fakes.pipeline, nullptr);
}

TEST_F(AudioClipStop, WaitsThreeSecondsForAnAsynchronousChange)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_ASYNC;
    fakes.wait_result = GST_STATE_CHANGE_SUCCESS;
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls("wait "), Calls({"wait 3000000000 ns"}));
    EXPECT_EQ(fakes.pipeline, nullptr);
}

TEST_F(AudioClipStop, DoesNotWaitForAnImmediateChange)
{
    start_playing();
    fakes.wait_result = GST_STATE_CHANGE_SUCCESS;
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls("wait "), Calls());
}

TEST_F(AudioClipStop, EndsTheProcessWhenThePipelineCannotBeStopped)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    EXPECT_EXIT(
        {
            log_to_stderr();
            audio_clip_stop(clip, nullptr);
        },
        ::testing::ExitedWithCode(1), "^256: Could not set the pipeline to GST_STATE_NULL\\.\n$");
}

TEST_F(AudioClipStop, EndsTheProcessWhenThePipelineTakesTooLong)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_ASYNC;
    fakes.wait_result = GST_STATE_CHANGE_ASYNC;
    EXPECT_EXIT(
        {
            log_to_stderr();
            audio_clip_stop(clip, nullptr);
        },
        ::testing::ExitedWithCode(1),
        "^16: It took too long to set the pipeline to GST_STATE_NULL\\.\n"
        "256: Could not set the pipeline to GST_STATE_NULL\\.\n$");
}

TEST_F(AudioClipStop, EndsTheProcessWhenTheAwaitedChangeFails)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_ASYNC;
    fakes.wait_result = GST_STATE_CHANGE_FAILURE;
    EXPECT_EXIT(
        {
            log_to_stderr();
            audio_clip_stop(clip, nullptr);
        },
        ::testing::ExitedWithCode(1), "^256: Could not set the pipeline to GST_STATE_NULL\\.\n$");
}

TEST_F(AudioClipStop, EndsTheProcessWhenAStuckPipelineStaysStuck)
{
    fakes.play_result = GST_STATE_CHANGE_FAILURE;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    start();
    clear_log();
    EXPECT_EXIT(
        {
            log_to_stderr();
            audio_clip_stop(clip, nullptr);
        },
        ::testing::ExitedWithCode(1), "^256: Could not set the pipeline to GST_STATE_NULL\\.\n$");
}

TEST_F(AudioClipBus, DelaysTheStopAfterTheEndOfTheStream)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    EXPECT_EQ(take_calls(), Calls({"timer 300 ms"}));
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipBus, StopsOnceTheDelayIsOver)
{
    start_playing();
    fakes.timers_expire_at_once = true;
    post(end_of_stream(fakes.pipeline));
    EXPECT_EQ(take_calls(), Calls({
                                "timer 300 ms",
                                "set NULL",
                                "playlist_clear",
                                "stopped on 0 -1 -1",
                                "finished",
                            }));
    EXPECT_FALSE(source_exists(fakes.timer_id));
}

TEST_F(AudioClipBus, DoesNotStopBefore300MillisecondsHavePassed)
{
    start_playing();
    const gint64 ended = g_get_monotonic_time();
    post(end_of_stream(fakes.pipeline));
    ASSERT_TRUE(run_until([] { return audio_clip_count_calls("finished") > 0; }));
    EXPECT_GE(g_get_monotonic_time() - ended, 300 * G_TIME_SPAN_MILLISECOND);
}

TEST_F(AudioClipBus, IsNotWatchedAfterTheEndOfTheStream)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    EXPECT_FALSE(source_exists(fakes.watch_id));
}

/* A second removal of the watch would be a GLib critical, which the fixture does not let pass. */
TEST_F(AudioClipBus, MayBeStoppedWithinTheDelay)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    take_calls();
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls(),
              Calls({"set NULL", "playlist_clear", "stopped on 0 -1 -1", "finished"}));
    expect_no_log();
}

TEST_F(AudioClipBus, DoesNotEndTheNextRequestWithTheDelayOfTheLast)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    audio_clip_stop(clip, nullptr);
    EXPECT_FALSE(source_exists(fakes.timer_id));
    start_playing();
    const gint64 started = g_get_monotonic_time();
    run_until([&] { return g_get_monotonic_time() - started > 400 * G_TIME_SPAN_MILLISECOND; });
    EXPECT_TRUE(audio_clip_is_active(clip));
    EXPECT_EQ(take_calls(), Calls());
}

TEST_F(AudioClipBus, RefusesARequestWithinTheDelay)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    EXPECT_EQ(start(), "A clip is already playing.");
}

TEST_F(AudioClipBus, StopsAtOnceWithoutATimer)
{
    start_playing();
    fakes.timer_fails = true;
    post(end_of_stream(fakes.pipeline));
    EXPECT_EQ(take_calls(), Calls({
                                "timer 300 ms",
                                "set NULL",
                                "playlist_clear",
                                "stopped on 0 -1 -1",
                                "finished",
                            }));
    EXPECT_FALSE(source_exists(fakes.watch_id));
}

TEST_F(AudioClipBus, LogsAStreamError)
{
    start_playing();
    post(stream_error(fakes.pipeline, "No 100% sound."));
    expect_log(LOG_LEVEL_ERROR, "Error received from element 'play audio clip': No 100% sound.");
    expect_no_log();
}

TEST_F(AudioClipBus, NamesTheElementThatFailed)
{
    start_playing();
    g_autoptr(GstElement) decoder = gst_bin_new("decoder7");
    gst_object_ref_sink(decoder);
    post(stream_error(decoder, "Broken."));
    expect_log(LOG_LEVEL_ERROR, "Error received from element 'decoder7': Broken.");
}

TEST_F(AudioClipBus, StopsAtOnceAfterAStreamError)
{
    start_playing();
    post(stream_error(fakes.pipeline, "Broken."));
    EXPECT_EQ(take_calls(),
              Calls({"set NULL", "playlist_clear", "stopped on 0 -1 -1", "finished"}));
    EXPECT_FALSE(source_exists(fakes.watch_id));
    clear_log();
}

TEST_F(AudioClipBus, IgnoresOtherMessages)
{
    start_playing();
    g_autoptr(GError) error =
        g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, "Odd.");
    post(gst_message_new_warning(GST_OBJECT(fakes.pipeline), error, nullptr));
    post(gst_message_new_application(GST_OBJECT(fakes.pipeline), gst_structure_new_empty("odd")));
    EXPECT_EQ(take_calls(), Calls());
    EXPECT_TRUE(source_exists(fakes.watch_id));
    expect_no_log();
}

TEST_F(AudioClipBus, SeesTheEndOfTheStreamAfterOtherMessages)
{
    start_playing();
    post(gst_message_new_application(GST_OBJECT(fakes.pipeline), gst_structure_new_empty("odd")));
    post(end_of_stream(fakes.pipeline));
    EXPECT_EQ(take_calls(), Calls({"timer 300 ms"}));
}

TEST_F(AudioClipUnref, WarnsAboutAPlayerThatIsNone)
{
    gint64 something[64] = {};
    audio_clip_unref(reinterpret_cast<AudioClip *>(something));
    expect_log(G_LOG_LEVEL_WARNING, "Trying to free an invalid AudioClip instance.");
    EXPECT_EQ(take_calls(), Calls());
}

TEST_F(AudioClipUnref, WarnsAboutNull)
{
    audio_clip_unref(nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Trying to free an invalid AudioClip instance.");
}

TEST_F(AudioClipUnref, LeavesTheRealPlayerAloneThen)
{
    start_playing();
    audio_clip_unref(nullptr);
    EXPECT_TRUE(audio_clip_is_active(clip));
    clear_log();
}

TEST_F(AudioClipUnref, EndsWhatPlaysWithoutTellingAnybody)
{
    start_playing();
    fakes.note_locks = true;
    audio_clip_unref(g_steal_pointer(&clip));
    EXPECT_EQ(take_calls(), Calls({
                                "set NULL",
                                "playlist_free",
                                "try request",
                                "try state",
                                "unlock state",
                                "unlock request",
                            }));
}

TEST_F(AudioClipUnref, ReleasesWhatItMade)
{
    use_vendor_sink();
    start_playing();
    audio_clip_unref(g_steal_pointer(&clip));
    EXPECT_EQ(fakes.pipeline, nullptr);
    EXPECT_EQ(fakes.vesk_sink, nullptr);
    EXPECT_EQ(stand_in_sink_count(), 0);
}

TEST_F(AudioClipUnref, RemovesItsSources)
{
    start_playing();
    audio_clip_unref(g_steal_pointer(&clip));
    EXPECT_FALSE(source_exists(fakes.watch_id));
}

TEST_F(AudioClipUnref, RemovesAPendingDelay)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    audio_clip_unref(g_steal_pointer(&clip));
    EXPECT_FALSE(source_exists(fakes.timer_id));
}

TEST_F(AudioClipUnref, DoesNotEndTheProcessWithAPipelineThatCannotBeStopped)
{
    start_playing();
    GstElement *pipeline = fakes.pipeline;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    audio_clip_unref(g_steal_pointer(&clip));
    expect_log(LOG_LEVEL_ERROR, "Could not set the pipeline to GST_STATE_NULL.");
    EXPECT_EQ(fakes.pipeline, pipeline); /* kept; it is ours to release now */
    gst_object_unref(pipeline);
}

TEST_F(AudioClipUnref, AbortsDuringAStop)
{
    fakes.on_finished = [this] {
        audio_clip_unref(clip);
    };
    EXPECT_DEATH(
        {
            log_to_stderr();
            audio_clip_stop(clip, nullptr);
        },
        "6: Ungraceful exit: Failed to lock the mutex\n");
}

TEST_F(AudioClipUnref, AbortsDuringAStart)
{
    fakes.on_state = [this] {
        audio_clip_unref(clip);
    };
    EXPECT_DEATH(
        {
            log_to_stderr();
            start();
        },
        "6: Ungraceful exit: Failed to lock the mutex\n");
}

TEST_F(AudioClipUnref, MakesRoomForANewPlayer)
{
    start_playing();
    audio_clip_unref(clip);
    clip = audio_clip_ref();
    EXPECT_FALSE(audio_clip_is_active(clip));
    EXPECT_EQ(start(), "");
}
