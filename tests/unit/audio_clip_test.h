#pragma once

/*
 * What the tests of the player share: a fixture, fakes of the modules that the player calls, and a
 * grip on some calls of GLib and GStreamer. Everything that the player calls is noted in one list,
 * in the order in which it happened.
 */

#include <functional>
#include <gst/gst.h>
#include <set>
#include <string>
#include <vector>

#include "audio_clip.h"
#include "log_test.h"

using Calls = std::vector<std::string>;

/*
 * What the player is given. Set by the test while nothing plays; the hooks are called where they
 * say, on the thread of the call.
 */
struct AudioClipFakes {
    /* The options as the parser reads them. */
    bool parse_result = true;
    std::string location = "/clips/door.wav";
    gint32 volume = 100;
    gint32 repeat = 0;
    gint32 audio_output = 0;
    gint32 audio_device_id = -1;
    gint32 audio_output_id = -1;
    std::string alsa_device = "audiosink0";

    /* The playlist: whether files are found, and which. */
    bool add_result = true;
    std::vector<std::string> uris = {"file:///clips/door.wav"};

    /* GStreamer and GLib. */
    std::set<std::string> missing_elements = {"veskaudiosink"};
    bool bus_missing = false;
    bool connect_fails = false;
    bool timer_fails = false;
    bool timers_expire_at_once = false;
    const char *failing_trylock = nullptr; /* "state" or "request" */
    bool note_locks = false;
    /*
     * The pipeline does not really play unless this is set; its change to playing then yields
     * `play_result`.
     */
    bool plays_for_real = false;
    GstStateChangeReturn play_result = GST_STATE_CHANGE_SUCCESS;
    /* What the change to the null state and the wait for it yield; -1: what they really yield. */
    int null_result = -1;
    int wait_result = -1;

    std::function<void()> on_null;     /* before the pipeline is set to the null state */
    std::function<void()> on_state;    /* in sonobrik_events_set_file_state() */
    std::function<void()> on_finished; /* in audioclip_dbus_notify_request_finished() */

    /* What the player made; borrowed, null once it is released. */
    GstElement *pipeline = nullptr;
    GstElement *vesk_sink = nullptr;
    guint watch_id = 0;
    guint timer_id = 0;
};

class AudioClipTest : public LogTest
{
  protected:
    static void SetUpTestSuite();

    void SetUp() override;
    void TearDown() override;

    /* Makes the player anew, on a device that has a sink of its own. */
    void use_vendor_sink();

    /* Starts and expects success; the calls so far are forgotten. */
    void start_playing();

    /* Starts and returns the error, "" on success. */
    std::string start(const char *options = "location=/clips/door.wav");

    /* The calls so far, which are forgotten; and whether one of them begins so. */
    Calls take_calls();
    Calls take_calls(const std::string &beginning);

    /* Posts on the bus of the pipeline and lets the loop run dry. */
    void post(GstMessage *message);

    static void run_pending_sources();
    static bool source_exists(guint id);
    /* Runs the loop until the condition holds; false if it does not within a long time. */
    static bool run_until(const std::function<bool()> &condition);

    AudioClip *clip = nullptr;
    AudioClipFakes &fakes;

    AudioClipTest();
};

/* Notes a call; from any thread. */
void audio_clip_note_call(const std::string &call);

/*
 * Learns the names of this idle player's locks: "state" is the one that audio_clip_is_active()
 * takes, "request" the other one that audio_clip_stop() takes.
 */
void audio_clip_learn_locks(AudioClip *clip);

/* The fakes of the running test. */
AudioClipFakes &audio_clip_fakes();

/* How often a call that begins so was noted since the calls were last taken. */
size_t audio_clip_count_calls(const std::string &beginning);

/* For the statement of a death test: sends the log to standard error, "LEVEL: TEXT" a line. */
void log_to_stderr();
