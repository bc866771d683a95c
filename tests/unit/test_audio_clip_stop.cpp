#include "audio_clip_test.h"

#include <atomic>
#include <thread>

#include "stand_in_sink.h"

/* How a request ends, and how the player is torn down. */

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
    return gst_message_new_error(GST_OBJECT(element), error, "debug details");
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
    EXPECT_TRUE(pipeline_released());
    EXPECT_TRUE(run_until([] { return stand_in_sink_count() == 0; }));
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
    expect_stopped("-1 2 4");
}

TEST_F(AudioClipStop, TellsOnlyTheBusSideWhileIdle)
{
    EXPECT_TRUE(audio_clip_stop(clip, nullptr));
    EXPECT_EQ(audio_clip_count_calls("finished"), 1u);
    EXPECT_EQ(audio_clip_count_calls("stopped "), 0u);
}

TEST_F(AudioClipStop, FailsForANullPlayer)
{
    EXPECT_FALSE(audio_clip_stop(nullptr, "ignored"));
    EXPECT_EQ(take_calls(), Calls());
    expect_no_log();
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
    EXPECT_EQ(audio_clip_count_calls("stopped "), 0u);
    EXPECT_EQ(audio_clip_count_calls("finished"), 1u);
    EXPECT_TRUE(pipeline_released());
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

/* GStreamer's thread may still have a reference when the next request starts. */
TEST_F(AudioClipStop, FreesTheVendorSinkBeforeThePipelineIsReleased)
{
    use_vendor_sink();
    start_playing();
    g_autoptr(GstElement) old_pipeline = GST_ELEMENT(gst_object_ref(fakes.pipeline.load()));
    audio_clip_stop(clip, nullptr);
    start_playing();
    EXPECT_NE(fakes.pipeline, old_pipeline);
    audio_clip_stop(clip, nullptr);
    expect_no_log();
}

TEST_F(AudioClipStop, TakesAChangeWithoutPrerollForSuccess)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_NO_PREROLL;
    audio_clip_stop(clip, nullptr);
    EXPECT_TRUE(pipeline_released());
}

TEST_F(AudioClipStop, WaitsThreeSecondsForAnAsynchronousChange)
{
    start_playing();
    fakes.null_result = GST_STATE_CHANGE_ASYNC;
    fakes.wait_result = GST_STATE_CHANGE_SUCCESS;
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls("wait "), Calls({"wait 3000000000 ns"}));
    EXPECT_TRUE(pipeline_released());
}

TEST_F(AudioClipStop, DoesNotWaitForAnImmediateChange)
{
    start_playing();
    fakes.wait_result = GST_STATE_CHANGE_SUCCESS;
    audio_clip_stop(clip, nullptr);
    EXPECT_EQ(take_calls("wait "), Calls());
}

/*
 * The change takes almost the whole limit and is still asynchronous then. With one limit for the
 * change and another for the wait, this would take 5.9 s.
 */
TEST_F(AudioClipUnref, AllowsThreeSecondsForTheChangeAndTheWaitTogether)
{
    start_playing();
    std::atomic<bool> abandoned = false;
    std::atomic<bool> returned = false;
    fakes.null_result = GST_STATE_CHANGE_ASYNC;
    fakes.wait_result = GST_STATE_CHANGE_ASYNC;
    fakes.on_null = [] {
        g_usleep(2900 * G_TIME_SPAN_MILLISECOND);
    };
    fakes.on_wait = [&](GstClockTime timeout) {
        const gint64 deadline = g_get_monotonic_time() + GST_TIME_AS_USECONDS(timeout);
        while (!abandoned && g_get_monotonic_time() < deadline) {
            std::this_thread::yield();
        }
        returned = true;
    };
    GstElement *pipeline = fakes.pipeline;
    const gint64 began = g_get_monotonic_time();
    audio_clip_unref(g_steal_pointer(&clip));
    const gint64 took = g_get_monotonic_time() - began;
    abandoned = true;
    EXPECT_GE(took, 3 * G_TIME_SPAN_SECOND);
    EXPECT_LT(took, 5 * G_TIME_SPAN_SECOND);
    expect_log(G_LOG_LEVEL_WARNING, "It took too long to set the pipeline to GST_STATE_NULL.");
    expect_log(LOG_LEVEL_ERROR, "Could not set the pipeline to GST_STATE_NULL.");
    EXPECT_TRUE(run_until([&] { return returned.load(); }));
    gst_object_unref(pipeline); /* the player kept it */
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
    EXPECT_EQ(take_calls("timer "), Calls({"timer 300 ms"}));
    EXPECT_TRUE(audio_clip_is_active(clip));
}

TEST_F(AudioClipBus, StopsOnceTheDelayIsOver)
{
    start_playing();
    fakes.timers_expire_at_once = true;
    post(end_of_stream(fakes.pipeline));
    expect_stopped();
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

/* Removing the watch a second time would log a GLib critical. */
TEST_F(AudioClipBus, CanBeStoppedWithinTheDelay)
{
    start_playing();
    post(end_of_stream(fakes.pipeline));
    audio_clip_stop(clip, nullptr);
    expect_stopped();
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
    EXPECT_EQ(audio_clip_count_calls("finished"), 0u);
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
    expect_stopped();
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
    EXPECT_EQ(audio_clip_count_calls("timer "), 0u);
    expect_stopped();
    EXPECT_FALSE(source_exists(fakes.watch_id));
    clear_log();
}

TEST_F(AudioClipBus, LogsOnlyTheFirstOfSeveralStreamErrors)
{
    start_playing();
    queue(stream_error(fakes.pipeline, "Broken."));
    post(stream_error(fakes.pipeline, "Internal data stream error."));
    expect_log(LOG_LEVEL_ERROR, "Error received from element 'play audio clip': Broken.");
    expect_no_log();
    expect_stopped();
}

TEST_F(AudioClipStop, LogsAStreamErrorThatTheWatchHasNotRead)
{
    start_playing();
    queue(stream_error(fakes.pipeline, "Broken."));
    audio_clip_stop(clip, nullptr);
    expect_log(LOG_LEVEL_ERROR, "Error received from element 'play audio clip': Broken.");
    expect_no_log();
    expect_stopped();
}

TEST_F(AudioClipBus, LogsAStreamErrorAfterTheEndOfTheStream)
{
    start_playing();
    fakes.timers_expire_at_once = true;
    queue(end_of_stream(fakes.pipeline));
    post(stream_error(fakes.pipeline, "Broken."));
    expect_log(LOG_LEVEL_ERROR, "Error received from element 'play audio clip': Broken.");
    expect_stopped();
}

TEST_F(AudioClipUnref, LogsAStreamErrorThatTheWatchHasNotRead)
{
    start_playing();
    queue(stream_error(fakes.pipeline, "Broken."));
    audio_clip_unref(g_steal_pointer(&clip));
    expect_log(LOG_LEVEL_ERROR, "Error received from element 'play audio clip': Broken.");
}

TEST_F(AudioClipBus, IgnoresOtherMessages)
{
    start_playing();
    g_autoptr(GError) error =
        g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, "Odd.");
    post(gst_message_new_warning(GST_OBJECT(fakes.pipeline.load()), error, nullptr));
    post(gst_message_new_application(GST_OBJECT(fakes.pipeline.load()),
                                     gst_structure_new_empty("odd")));
    EXPECT_TRUE(audio_clip_is_active(clip));
    EXPECT_TRUE(source_exists(fakes.watch_id));
    expect_no_log();
}

TEST_F(AudioClipBus, WakesTheLoopForErrorsAndTheEndOfTheStreamOnly)
{
    start_playing();
    g_autoptr(GstBus) bus = gst_element_get_bus(fakes.pipeline);
    queue(gst_message_new_application(GST_OBJECT(fakes.pipeline.load()),
                                      gst_structure_new_empty("odd")));
    EXPECT_FALSE(gst_bus_have_pending(bus));
    queue(end_of_stream(fakes.pipeline));
    EXPECT_TRUE(gst_bus_have_pending(bus));
}

TEST_F(AudioClipBus, SeesTheEndOfTheStreamAfterOtherMessages)
{
    start_playing();
    post(gst_message_new_application(GST_OBJECT(fakes.pipeline.load()),
                                     gst_structure_new_empty("odd")));
    post(end_of_stream(fakes.pipeline));
    EXPECT_EQ(audio_clip_count_calls("timer "), 1u);
}

TEST_F(AudioClipUnref, WarnsAboutAnInvalidPlayer)
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

TEST_F(AudioClipUnref, EndsTheRequestWithoutEventOrNotice)
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
    EXPECT_TRUE(pipeline_released());
    EXPECT_TRUE(run_until([this] { return !fakes.vesk_sink; }));
    EXPECT_TRUE(run_until([] { return stand_in_sink_count() == 0; }));
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
    EXPECT_EQ(fakes.pipeline, pipeline);
    gst_object_unref(pipeline); /* the player kept it */
}

TEST_F(AudioClipUnref, DisconnectsAPipelineThatCannotBeStopped)
{
    fakes.repeat = -1;
    start_playing();
    GstElement *pipeline = fakes.pipeline;
    fakes.null_result = GST_STATE_CHANGE_FAILURE;
    AudioClip *player = clip;
    const auto is_connected = [pipeline, player] {
        return g_signal_handler_find(pipeline, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr,
                                     player) != 0;
    };
    EXPECT_TRUE(is_connected());
    audio_clip_unref(g_steal_pointer(&clip));
    EXPECT_FALSE(is_connected());
    clear_log();
    gst_object_unref(pipeline); /* the player kept it */
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

TEST_F(AudioClipUnref, AllowsANewPlayer)
{
    start_playing();
    audio_clip_unref(clip);
    clip = audio_clip_ref();
    EXPECT_FALSE(audio_clip_is_active(clip));
    EXPECT_EQ(start(), "");
}
