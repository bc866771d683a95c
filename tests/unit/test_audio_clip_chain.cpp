#include "audio_clip_test.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include "repeat.h"

/* Clips that follow each other within one request. */

namespace
{

class AudioClipChain : public AudioClipTest
{
  protected:
    void SetUp() override
    {
        AudioClipTest::SetUp();
        fakes.uris = {"file:///clips/a.wav", "file:///clips/b.wav", "file:///clips/c.wav"};
    }

    /* Emits the signals of a switch, as playbin does. */
    void about_to_finish()
    {
        g_signal_emit_by_name(fakes.pipeline, "about-to-finish");
        g_autoptr(GstElement) source = gst_element_factory_make("fakesrc", nullptr);
        gst_object_ref_sink(source);
        g_signal_emit_by_name(fakes.pipeline, "source-setup", source);
    }

    void about_to_finish(int times)
    {
        for (int i = 0; i < times; i++) {
            about_to_finish();
        }
    }

    std::string next_uri()
    {
        g_autofree char *uri = nullptr;
        g_object_get(fakes.pipeline, "uri", &uri, nullptr);
        return uri ? uri : "none";
    }
};

} // namespace

TEST_F(AudioClipChain, TakesTheStepsInOrderUnderBothLocks)
{
    fakes.repeat = 1;
    start_playing();
    fakes.note_locks = true;
    about_to_finish();
    EXPECT_EQ(take_calls(), Calls({
                                "try request",
                                "lock state",
                                "draw, not none",
                                "file /clips/b.wav on 0 -1 -1",
                                "unlock state",
                                "unlock request",
                            }));
}

TEST_F(AudioClipChain, GivesThePipelineTheNextClip)
{
    fakes.repeat = 1;
    start_playing();
    about_to_finish();
    EXPECT_EQ(next_uri(), "file:///clips/b.wav");
}

TEST_F(AudioClipChain, TellsTheEventsWhichOutputPlaysTheNextClip)
{
    fakes.repeat = 1;
    fakes.audio_output = -1;
    fakes.audio_device_id = 2;
    fakes.audio_output_id = 4;
    start_playing();
    about_to_finish();
    EXPECT_EQ(take_calls("file "), Calls({"file /clips/b.wav on -1 2 4"}));
}

TEST_F(AudioClipChain, TellsTheEventsThePathInsteadOfTheUri)
{
    fakes.repeat = 1;
    fakes.uris = {"file:///clips/a.wav", "file:///clips/two%20words.wav"};
    start_playing();
    about_to_finish();
    EXPECT_EQ(take_calls("file "), Calls({"file /clips/two words.wav on 0 -1 -1"}));
}

TEST_F(AudioClipChain, ChainsAsManyClipsAsAreRepeated)
{
    fakes.repeat = 2;
    start_playing();
    about_to_finish(5);
    EXPECT_EQ(take_calls("file "), Calls({
                                       "file /clips/b.wav on 0 -1 -1",
                                       "file /clips/c.wav on 0 -1 -1",
                                   }));
}

TEST_F(AudioClipChain, DrawsNothingOnceNoClipIsLeft)
{
    fakes.repeat = 1;
    start_playing();
    about_to_finish();
    take_calls();
    about_to_finish();
    EXPECT_EQ(audio_clip_count_calls("draw"), 0u);
}

TEST(Repeat, CountsDownToZero)
{
    gint32 repeat = 2;
    EXPECT_TRUE(repeat_take(&repeat));
    EXPECT_TRUE(repeat_take(&repeat));
    EXPECT_EQ(repeat, 0);
    EXPECT_FALSE(repeat_take(&repeat));
    EXPECT_EQ(repeat, 0);
}

TEST(Repeat, IsNeverCountedDownIfEndless)
{
    gint32 repeat = -1;
    EXPECT_TRUE(repeat_take(&repeat));
    EXPECT_EQ(repeat, -1);
}

TEST_F(AudioClipChain, NeverEndsIfEndless)
{
    fakes.repeat = -1;
    start_playing();
    about_to_finish(10);
    EXPECT_EQ(take_calls("file ").size(), 10u);
}

TEST_F(AudioClipChain, CountsADrawWithoutAFileToo)
{
    fakes.repeat = 1;
    start_playing();
    const std::vector<std::string> uris = std::exchange(fakes.uris, {});
    about_to_finish();
    fakes.uris = uris;
    about_to_finish();
    EXPECT_EQ(audio_clip_count_calls("file "), 0u);
    EXPECT_EQ(next_uri(), "file:///clips/a.wav");
}

TEST_F(AudioClipChain, ChainsNoMoreThan50ClipsASecond)
{
    fakes.repeat = -1;
    const gint64 began = g_get_monotonic_time();
    start_playing();
    about_to_finish(10);
    EXPECT_GE(g_get_monotonic_time() - began, 200 * G_TIME_SPAN_MILLISECOND);
}

TEST_F(AudioClipChain, EndsASwitchThatIsNotTaken)
{
    fakes.repeat = 1;
    start_playing();
    about_to_finish();
    g_signal_emit_by_name(fakes.pipeline, "about-to-finish"); /* no source follows */
    const gint64 began = g_get_monotonic_time();
    audio_clip_stop(clip, nullptr);
    EXPECT_LT(g_get_monotonic_time() - began, 500 * G_TIME_SPAN_MILLISECOND);
}

/* A stop waits for the end of a switch, for 500 ms at most. */
TEST_F(AudioClipChain, EndsASwitchWhenTheNextSourceIsSetUp)
{
    fakes.repeat = -1;
    gint64 shortest = G_MAXINT64;
    for (int i = 0; i < 3; i++) {
        start_playing();
        about_to_finish();
        const gint64 began = g_get_monotonic_time();
        audio_clip_stop(clip, nullptr);
        shortest = std::min(shortest, g_get_monotonic_time() - began);
    }
    EXPECT_LT(shortest, 500 * G_TIME_SPAN_MILLISECOND);
}

/* Otherwise playbin can lock up. */
TEST_F(AudioClipChain, IsNotStoppedWithinASwitch)
{
    fakes.repeat = 1;
    start_playing();
    GstElement *pipeline = GST_ELEMENT(gst_object_ref(fakes.pipeline.load()));
    std::atomic<bool> source_set_up = false;
    bool stopped_within_switch = false;
    fakes.on_null = [&] {
        stopped_within_switch = !source_set_up;
    };
    g_signal_emit_by_name(pipeline, "about-to-finish");
    /* Late enough for a stop that does not wait to be over. */
    std::thread streaming([&] {
        g_usleep(100 * G_TIME_SPAN_MILLISECOND);
        g_autoptr(GstElement) source = gst_element_factory_make("fakesrc", nullptr);
        gst_object_ref_sink(source);
        source_set_up = true;
        g_signal_emit_by_name(pipeline, "source-setup", source);
    });
    audio_clip_stop(clip, nullptr);
    streaming.join();
    gst_object_unref(pipeline);
    EXPECT_FALSE(stopped_within_switch);
}

TEST_F(AudioClipChain, IsUntouchedByARefusedRequest)
{
    fakes.repeat = 2;
    fakes.audio_output = 1;
    start_playing();
    fakes.repeat = 7;
    fakes.audio_output = 5;
    EXPECT_EQ(start(), "A clip is already playing.");
    about_to_finish(5);
    EXPECT_EQ(take_calls("file "), Calls({
                                       "file /clips/b.wav on 1 -1 -1",
                                       "file /clips/c.wav on 1 -1 -1",
                                   }));
}

TEST_F(AudioClipChain, EndsWithAStop)
{
    fakes.repeat = -1;
    start_playing();
    g_autoptr(GstElement) pipeline = GST_ELEMENT(gst_object_ref(fakes.pipeline.load()));
    audio_clip_stop(clip, nullptr);
    take_calls();
    g_signal_emit_by_name(pipeline, "about-to-finish");
    EXPECT_EQ(audio_clip_count_calls("file "), 0u);
}

/* The stop waits for the streaming thread, which must not wait for a lock of the stop. */
TEST_F(AudioClipChain, DoesNotWaitForAStopThatWaitsForIt)
{
    fakes.repeat = -1;
    start_playing();
    std::thread streaming;
    std::atomic<bool> returned = false;
    bool returned_within_stop = false;
    GstElement *pipeline = GST_ELEMENT(gst_object_ref(fakes.pipeline.load()));
    fakes.on_null = [&] {
        streaming = std::thread([&] {
            g_signal_emit_by_name(pipeline, "about-to-finish");
            returned = true;
        });
        const gint64 deadline = g_get_monotonic_time() + 20 * G_USEC_PER_SEC;
        while (!returned && g_get_monotonic_time() < deadline) {
            std::this_thread::yield();
        }
        returned_within_stop = returned;
    };
    audio_clip_stop(clip, nullptr);
    streaming.join();
    gst_object_unref(pipeline);
    EXPECT_TRUE(returned_within_stop);
    EXPECT_EQ(take_calls("draw"), Calls());
}

TEST_F(AudioClipChain, GivesUpWhenTheRequestLockIsHeld)
{
    fakes.repeat = 1;
    start_playing();
    fakes.failing_trylock = "request";
    fakes.note_locks = true;
    about_to_finish();
    EXPECT_EQ(take_calls(), Calls({"try request"}));
}
