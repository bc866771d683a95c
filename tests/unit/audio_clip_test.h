#pragma once

/*
 * What the tests of the player share: a fixture, fakes of the modules that the player calls, and
 * replacements of some calls of GLib and GStreamer. Each call is recorded in one list, in the order
 * in which the calls happened.
 */

#include <atomic>
#include <functional>
#include <gst/gst.h>
#include <set>
#include <string>
#include <vector>

#include "audio_clip.h"
#include "log_test.h"

using Calls = std::vector<std::string>;

/*
 * An element that the player made, or null once it has been released. Borrowed. GStreamer may
 * release it on a thread of its own.
 */
struct MadeElement : std::atomic<GstElement *> {
    MadeElement() : atomic(nullptr) {}
    MadeElement &operator=(const MadeElement &other)
    {
        store(other.load());
        return *this;
    }
};

/*
 * How the fakes behave. A test sets this while nothing is playing. The hooks run on the thread of
 * the call.
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
    /* If false, the pipeline does not play: the change to playing only returns `play_result`. */
    bool plays_for_real = false;
    GstStateChangeReturn play_result = GST_STATE_CHANGE_SUCCESS;
    /* Results of the change to the null state and of the wait for it; -1 for the real results. */
    int null_result = -1;
    int wait_result = -1;

    std::function<void()> on_null; /* before the pipeline is set to the null state */
    std::function<void(GstClockTime timeout)> on_wait; /* before the wait for that returns */
    std::function<void()> on_state;                    /* in sonobrik_events_set_file_state() */
    std::function<void()> on_finished; /* in audioclip_dbus_notify_request_finished() */

    /* What the player made. */
    MadeElement pipeline;
    MadeElement vesk_sink;
    guint watch_id = 0;
    guint timer_id = 0;
};

class AudioClipTest : public LogTest
{
  protected:
    static void SetUpTestSuite();

    void SetUp() override;
    void TearDown() override;

    /* Replaces the player by one on a device that has a vendor sink. */
    void use_vendor_sink();

    /* Starts a request, expects success, and forgets the calls so far. */
    void start_playing();

    /* Starts a request and returns the error, "" on success. */
    std::string start(const char *options = "location=/clips/door.wav");

    /* Returns the calls so far, all or those with this beginning, and forgets all of them. */
    Calls take_calls();
    Calls take_calls(const std::string &beginning);

    /* Expects that one request has ended: the state event and the notice were sent once each. */
    void expect_stopped(const std::string &output = "0 -1 -1");

    /* Returns true once the pipeline has been released. */
    bool pipeline_released();

    /* Posts a message on the bus of the pipeline. */
    void queue(GstMessage *message);

    /* Posts a message on the bus of the pipeline and runs the sources that are ready. */
    void post(GstMessage *message);

    static void run_pending_sources();
    static bool source_exists(guint id);
    /* Runs the main loop until the condition is true; returns false if it is not within 60 s. */
    static bool run_until(const std::function<bool()> &condition);

    AudioClip *clip = nullptr;
    AudioClipFakes &fakes;

    AudioClipTest();
};

/* Records a call. May be called on any thread. */
void audio_clip_note_call(const std::string &call);

/*
 * Learns the names of this idle player's locks: "state" is the one that audio_clip_is_active()
 * takes, "request" the other one that audio_clip_stop() takes.
 */
void audio_clip_learn_locks(AudioClip *clip);

/* Returns the fakes of the running test. */
AudioClipFakes &audio_clip_fakes();

/* Counts the calls with this beginning since the calls were last taken. */
size_t audio_clip_count_calls(const std::string &beginning);

/* Returns the number of volume elements that exist, of the player and of playbin. */
int audio_clip_count_volumes();

/* For the statement of a death test: sends the log to standard error, "LEVEL: TEXT" a line. */
void log_to_stderr();
