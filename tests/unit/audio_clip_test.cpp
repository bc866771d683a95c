#include "audio_clip_test.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <utility>

#include "audio_clip_options.h"
#include "audioclip_dbus.h"
#include "playlist.h"
#include "sonobrik_events.h"
#include "stand_in_sink.h"

namespace
{

std::mutex calls_lock;

/* Never freed: streaming threads may outlive the statics when a death test exits. */
Calls &calls = *new Calls;
AudioClipFakes &the_fakes = *new AudioClipFakes;

std::mutex playlist_lock;
Playlist *made_playlist;
bool playlist_filled;
size_t next_uri;

std::string text_or_none(const char *text)
{
    return text ? text : "none";
}

std::string numbers(gint32 audio_output, gint32 audio_device_id, gint32 audio_output_id)
{
    return std::to_string(audio_output) + " " + std::to_string(audio_device_id) + " " +
           std::to_string(audio_output_id);
}

bool begins_with(const std::string &call, const std::string &beginning)
{
    return call.compare(0, beginning.size(), beginning) == 0;
}

} // namespace

void audio_clip_note_call(const std::string &call)
{
    const std::lock_guard guard(calls_lock);
    calls.push_back(call);
}

AudioClipFakes &audio_clip_fakes()
{
    return the_fakes;
}

size_t audio_clip_count_calls(const std::string &beginning)
{
    const std::lock_guard guard(calls_lock);
    return std::count_if(calls.begin(), calls.end(),
                         [&](const std::string &call) { return begins_with(call, beginning); });
}

void log_to_stderr()
{
    g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags level, const gchar *text, gpointer) {
            fprintf(stderr, "%d: %s\n", static_cast<int>(level), text);
        },
        nullptr);
}

/* The modules that the player calls. */

bool audio_clip_parse_options(const char *options, char **location, gint32 *volume, gint32 *repeat,
                              gint32 *audio_output, gint32 *audio_device_id,
                              gint32 *audio_output_id, char **alsa_device)
{
    audio_clip_note_call("parse " + text_or_none(options) + ", defaults " +
                         text_or_none(*location) + " " + std::to_string(*volume) + " " +
                         std::to_string(*repeat) + " " +
                         (audio_output ? std::to_string(*audio_output) : "withheld") + " " +
                         std::to_string(*audio_device_id) + " " + std::to_string(*audio_output_id) +
                         " " + text_or_none(*alsa_device));
    *location = g_strdup(the_fakes.location.c_str());
    *volume = the_fakes.volume;
    *repeat = the_fakes.repeat;
    if (audio_output) {
        *audio_output = the_fakes.audio_output;
        *audio_device_id = the_fakes.audio_device_id;
        *audio_output_id = the_fakes.audio_output_id;
        *alsa_device = g_strdup(the_fakes.alsa_device.c_str());
    }
    return the_fakes.parse_result;
}

Playlist *playlist_new()
{
    audio_clip_note_call("playlist_new");
    made_playlist = g_new0(Playlist, 1);
    playlist_filled = false;
    return made_playlist;
}

void playlist_free(Playlist *playlist)
{
    EXPECT_EQ(playlist, made_playlist);
    audio_clip_note_call("playlist_free");
    g_free(playlist);
}

void playlist_clear(Playlist *playlist)
{
    EXPECT_EQ(playlist, made_playlist);
    audio_clip_note_call("playlist_clear");
    const std::lock_guard guard(playlist_lock);
    playlist_filled = false;
}

bool playlist_add_from_wildcard_path(Playlist *playlist, const char *path)
{
    EXPECT_EQ(playlist, made_playlist);
    audio_clip_note_call("add " + text_or_none(path));
    const std::lock_guard guard(playlist_lock);
    playlist_filled = the_fakes.add_result;
    next_uri = 0;
    return the_fakes.add_result;
}

/* Picks in the order of the list, again and again; skips the current URI if there is another. */
char *playlist_get_random_uri(const Playlist *playlist, const char *current_uri)
{
    EXPECT_EQ(playlist, made_playlist);
    audio_clip_note_call("draw, not " + text_or_none(current_uri));
    const std::lock_guard guard(playlist_lock);
    const std::vector<std::string> &uris = the_fakes.uris;
    if (!playlist_filled || uris.empty()) {
        return nullptr;
    }
    if (uris.size() > 1 && current_uri && uris[next_uri % uris.size()] == current_uri) {
        next_uri++;
    }
    return g_strdup(uris[next_uri++ % uris.size()].c_str());
}

void sonobrik_events_set_file(const char *file_name, gint32 audio_output, gint32 audio_device_id,
                              gint32 audio_output_id)
{
    audio_clip_note_call("file " + text_or_none(file_name) + " on " +
                         numbers(audio_output, audio_device_id, audio_output_id));
}

void sonobrik_events_set_file_state(bool playing, gint32 audio_output, gint32 audio_device_id,
                                    gint32 audio_output_id)
{
    audio_clip_note_call(std::string(playing ? "playing" : "stopped") + " on " +
                         numbers(audio_output, audio_device_id, audio_output_id));
    if (the_fakes.on_state) {
        the_fakes.on_state();
    }
}

void audioclip_dbus_notify_request_finished()
{
    audio_clip_note_call("finished");
    if (the_fakes.on_finished) {
        the_fakes.on_finished();
    }
}

/* The fixture. */

AudioClipTest::AudioClipTest() : fakes(the_fakes) {}

void AudioClipTest::SetUpTestSuite()
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    gst_init(nullptr, nullptr);
    static bool registered = false;
    if (!registered) {
        stand_in_sink_register();
        registered = true;
    }
}

void AudioClipTest::SetUp()
{
    the_fakes = AudioClipFakes();
    stand_in_sink_reset();
    clip = audio_clip_ref();
    audio_clip_learn_locks(clip);
    clear_log();
    take_calls();
}

void AudioClipTest::TearDown()
{
    the_fakes = AudioClipFakes();
    if (clip) {
        audio_clip_unref(clip);
    }
    run_pending_sources();
    EXPECT_TRUE(run_until([] { return stand_in_sink_count() == 0; }));
    LogTest::TearDown();
}

void AudioClipTest::use_vendor_sink()
{
    audio_clip_unref(clip);
    fakes.missing_elements.clear();
    clip = audio_clip_ref();
    take_calls();
}

void AudioClipTest::start_playing()
{
    EXPECT_EQ(start(), "");
    take_calls();
}

std::string AudioClipTest::start(const char *options)
{
    g_autofree char *error = audio_clip_start(clip, options);
    return error ? error : "";
}

Calls AudioClipTest::take_calls()
{
    const std::lock_guard guard(calls_lock);
    return std::exchange(calls, {});
}

Calls AudioClipTest::take_calls(const std::string &beginning)
{
    Calls taken = take_calls();
    std::erase_if(taken, [&](const std::string &call) { return !begins_with(call, beginning); });
    return taken;
}

void AudioClipTest::expect_stopped(const std::string &output)
{
    EXPECT_FALSE(audio_clip_is_active(clip));
    const Calls taken = take_calls();
    EXPECT_EQ(std::count(taken.begin(), taken.end(), "stopped on " + output), 1);
    EXPECT_EQ(std::count(taken.begin(), taken.end(), "finished"), 1);
}

bool AudioClipTest::pipeline_released()
{
    return run_until([this] { return !fakes.pipeline; });
}

void AudioClipTest::queue(GstMessage *message)
{
    g_autoptr(GstBus) bus = gst_element_get_bus(fakes.pipeline);
    gst_bus_post(bus, message);
}

void AudioClipTest::post(GstMessage *message)
{
    queue(message);
    run_pending_sources();
}

void AudioClipTest::run_pending_sources()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

bool AudioClipTest::source_exists(guint id)
{
    return g_main_context_find_source_by_id(nullptr, id) != nullptr;
}

bool AudioClipTest::run_until(const std::function<bool()> &condition)
{
    g_autoptr(GSource) tick = g_timeout_source_new(5);
    g_source_set_callback(
        tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(tick, nullptr);
    const gint64 deadline = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
    while (!condition() && g_get_monotonic_time() < deadline) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_destroy(tick);
    return condition();
}
