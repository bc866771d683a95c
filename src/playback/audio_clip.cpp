#include "audio_clip.h"

#include <cstdlib>
#include <gst/gst.h>

#include "audio_clip_options.h"
#include "audio_output.h"
#include "audioclip_dbus.h"
#include "clip_source.h"
#include "clip_switch.h"
#include "clip_volume.h"
#include "clip_warm_up.h"
#include "log_level.h"
#include "playlist.h"
#include "repeat.h"
#include "sonobrik_events.h"

/*
 * A stop takes `request_lock`, then `state_lock`, and holds both until it is done. It waits for the
 * streaming thread, so that thread only tries `request_lock`. A start takes `state_lock` alone.
 *
 * audio_clip_ref() and audio_clip_unref() access the fields without a lock, because no streaming
 * thread runs the player's code before the first start or after the teardown of the pipeline.
 */
struct AudioClip {
    GMutex state_lock;      /* guards the fields below `request_lock` */
    GMutex request_lock;    /* held for a whole stop */
    bool active;            /* a request is playing: set by a successful start, cleared by stop */
    GstElement *pipeline;   /* owned; the current "playbin" or null */
    GstElement *vesk_sink;  /* owned; the device's own sink; null if the player uses ALSA */
    Playlist *playlist;     /* owned; the files of the current request */
    gint32 repeat;          /* clips still to chain, or REPEAT_ENDLESS */
    guint bus_watch_id;     /* 0 if there is none, also between the end of stream and the stop */
    guint stop_timer_id;    /* the timer between the end of stream and the stop, else 0 */
    AudioOutputIds output;  /* of the current or last request, as the events know it */
    ClipSwitch clip_switch; /* of the current pipeline; has a lock of its own */
};

namespace
{

constexpr guint STOP_DELAY_MS = 300;
constexpr gint64 SINK_LATENCY_TIME_US = 20000;
constexpr GstClockTime PIPELINE_LATENCY = 100 * GST_MSECOND;
constexpr GstClockTime STATE_CHANGE_TIMEOUT = 3 * GST_SECOND;

AudioClip the_clip;

/* The output of a player that has not chosen one; the vendor sink's requests keep it. */
constexpr AudioOutputIds DEFAULT_OUTPUT = {0, -1, -1};

/* A play request as its options describe it. */
struct PlayRequest {
    char *location = nullptr; /* owned */
    gint32 volume = 100;
    gint32 repeat = 0;
    AudioOutputIds output = DEFAULT_OUTPUT;
    char *alsa_device = nullptr; /* owned */
};

void play_request_clear(PlayRequest *request)
{
    g_clear_pointer(&request->location, g_free);
    g_clear_pointer(&request->alsa_device, g_free);
}

G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(PlayRequest, play_request_clear)

/* Sends the event that names the file of `uri`. May be called on any thread, with any lock held. */
void announce_file(const char *uri, const AudioOutputIds &output)
{
    g_autofree char *path = gst_uri_get_location(uri);
    sonobrik_events_set_file(path, output.audio_output, output.audio_device_id,
                             output.audio_output_id);
}

/* Sends the event that tells whether the output is playing. */
void announce_state(bool playing, const AudioOutputIds &output)
{
    sonobrik_events_set_file_state(playing, output.audio_output, output.audio_device_id,
                                   output.audio_output_id);
}

/*
 * Sets the pipeline to the null state, waits until it is there, and queues the result. Called on a
 * thread of GStreamer, without a lock.
 */
void set_to_null(GstElement *pipeline, gpointer user_data)
{
    /* playbin reads this under the lock that it holds while it switches clips. */
    gint count = 0;
    g_object_get(pipeline, "n-audio", &count, nullptr);
    GstStateChangeReturn result = gst_element_set_state(pipeline, GST_STATE_NULL);
    if (result == GST_STATE_CHANGE_ASYNC) {
        result = gst_element_get_state(pipeline, nullptr, nullptr, STATE_CHANGE_TIMEOUT);
    }
    /* A queue cannot hold a null pointer, which GST_STATE_CHANGE_FAILURE would be. */
    g_async_queue_push(static_cast<GAsyncQueue *>(user_data), GINT_TO_POINTER(result + 1));
}

/*
 * Sets the pipeline to the null state. Returns GST_STATE_CHANGE_ASYNC if that takes longer than the
 * limit, in microseconds.
 *
 * A sink whose device accepts no more samples can block forever in the change, so the change runs
 * on another thread. That thread has a reference of its own to the pipeline and may outlive this
 * call.
 */
GstStateChangeReturn set_to_null_in_time(GstElement *pipeline, gint64 limit)
{
    g_autoptr(GAsyncQueue) results = g_async_queue_new();
    gst_element_call_async(pipeline, set_to_null, g_async_queue_ref(results), [](gpointer queue) {
        g_async_queue_unref(static_cast<GAsyncQueue *>(queue));
    });
    const gpointer result = g_async_queue_timeout_pop(results, static_cast<guint64>(limit));
    return result ? static_cast<GstStateChangeReturn>(GPOINTER_TO_INT(result) - 1)
                  : GST_STATE_CHANGE_ASYNC;
}

void log_stream_error(GstMessage *message)
{
    g_autoptr(GError) error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    g_autofree char *text = clip_source_describe_error(GST_MESSAGE_SRC(message), error->message);
    log_error("%sError received from element '%s': %s", "", GST_MESSAGE_SRC_NAME(message), text);
}

/*
 * Logs the error that the bus watch has not read yet, if there is one. The null state drops it.
 * Later errors follow from the first one and do not name the cause.
 */
void log_unread_error(GstElement *pipeline)
{
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
    g_autoptr(GstMessage) message = bus ? gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR) : nullptr;
    if (message) {
        log_stream_error(message);
    }
}

/*
 * Stops and releases the pipeline; keeps one that cannot be stopped. May block for
 * STATE_CHANGE_TIMEOUT. The caller holds `state_lock`, except in audio_clip_unref().
 */
void audio_clip_stop_pipeline(AudioClip *clip, bool exit_on_failure)
{
    if (clip->pipeline) {
        log_unread_error(clip->pipeline);
        const gint64 deadline = g_get_monotonic_time() +
                                static_cast<gint64>(GST_TIME_AS_USECONDS(STATE_CHANGE_TIMEOUT));
        clip_switch_close(&clip->clip_switch);
        const GstStateChangeReturn result =
            set_to_null_in_time(clip->pipeline, deadline - g_get_monotonic_time());
        if (result == GST_STATE_CHANGE_ASYNC) {
            g_warning("%sIt took too long to set the pipeline to GST_STATE_NULL.", "");
        }
        if (result == GST_STATE_CHANGE_SUCCESS || result == GST_STATE_CHANGE_NO_PREROLL) {
            gst_object_unref(g_steal_pointer(&clip->pipeline));
        } else {
            log_error("%sCould not set the pipeline to GST_STATE_NULL.", "");
            if (exit_on_failure) {
                /* The player cannot play again with this pipeline; systemd restarts the daemon. */
                exit(EXIT_FAILURE);
            }
        }
    }
    g_clear_handle_id(&clip->bus_watch_id, g_source_remove);
}

gboolean audio_clip_on_stop_timeout(gpointer user_data)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    if (clip) {
        g_mutex_lock(&clip->state_lock);
        clip->stop_timer_id = 0;
        g_mutex_unlock(&clip->state_lock);
        audio_clip_stop(clip, nullptr);
    }
    return G_SOURCE_REMOVE;
}

/*
 * Starts the delay in which the output plays what it has buffered. Forgets the bus watch, which the
 * end-of-stream message ends. Returns false if no timer could be added. Takes `state_lock`.
 */
bool start_stop_timer(AudioClip *clip)
{
    g_mutex_lock(&clip->state_lock);
    clip->stop_timer_id = g_timeout_add(STOP_DELAY_MS, audio_clip_on_stop_timeout, clip);
    const bool added = clip->stop_timer_id != 0;
    if (added) {
        clip->bus_watch_id = 0;
    }
    g_mutex_unlock(&clip->state_lock);
    return added;
}

gboolean audio_clip_on_bus_message(GstBus *bus, GstMessage *message, gpointer user_data)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_EOS:
        if (!start_stop_timer(clip)) {
            audio_clip_stop(clip, nullptr);
        }
        return G_SOURCE_REMOVE;
    case GST_MESSAGE_ERROR:
        log_stream_error(message);
        /* Drops the errors that follow from this one. */
        gst_bus_set_flushing(bus, TRUE);
        audio_clip_stop(clip, nullptr);
        return G_SOURCE_REMOVE;
    default:
        return G_SOURCE_CONTINUE;
    }
}

/*
 * Drops the messages that the bus watch would ignore. A start posts about 40 of them, and each
 * would wake the main loop while the streaming threads need the processors. Called on any thread.
 */
GstBusSyncReply drop_ignored_message(GstBus *, GstMessage *message, gpointer)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS ||
        GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        return GST_BUS_PASS;
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

/* Chains the next clip. Returns false if none is left to chain. The caller holds both locks. */
bool chain_next_clip(AudioClip *clip, GstElement *playbin)
{
    if (!repeat_take(&clip->repeat)) {
        return false;
    }
    g_autofree char *current_uri = nullptr;
    g_object_get(playbin, "current-uri", &current_uri, nullptr);
    g_autofree char *uri = playlist_get_random_uri(clip->playlist, current_uri);
    if (!uri || !clip->pipeline) {
        return false;
    }
    g_object_set(clip->pipeline, "uri", uri, nullptr);
    announce_file(uri, clip->output);
    return true;
}

/*
 * Called on a streaming thread. Takes both locks, or returns if a stop holds them. When this
 * function has set the URI of the next clip and returns, playbin switches to that clip.
 */
void audio_clip_on_about_to_finish(GstElement *playbin, gpointer user_data)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    if (!clip_switch_begin(&clip->clip_switch)) {
        return;
    }
    bool chained = false;
    /* A stop that holds the lock waits for this thread, so waiting for the lock would deadlock. */
    if (g_mutex_trylock(&clip->request_lock)) {
        g_mutex_lock(&clip->state_lock);
        chained = chain_next_clip(clip, playbin);
        g_mutex_unlock(&clip->state_lock);
        g_mutex_unlock(&clip->request_lock);
    }
    if (!chained) {
        clip_switch_end(&clip->clip_switch);
    }
}

/* Called on a streaming thread or, for the first clip, the main thread. Takes neither lock. */
void audio_clip_on_source_setup(GstElement *, GstElement *source, gpointer user_data)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    clip_source_pin(source);
    clip_switch_end(&clip->clip_switch); /* playbin holds its lock now */
}

/*
 * Returns a new reference to the sink for the request; null if there is no alsasink. The caller
 * holds `state_lock`.
 */
GstElement *get_sink(AudioClip *clip, const PlayRequest *request)
{
    if (clip->vesk_sink) {
        return GST_ELEMENT(gst_object_ref(clip->vesk_sink));
    }
    GstElement *sink = gst_element_factory_make("alsasink", "alsasink");
    if (sink) {
        gst_object_ref_sink(sink);
        g_object_set(sink, "device", request->alsa_device, nullptr);
    }
    return sink;
}

/*
 * Creates the pipeline that plays `uri`. Returns null or, on failure, the inner error. The caller
 * holds `state_lock`.
 */
const char *create_pipeline(AudioClip *clip, const PlayRequest *request, const char *uri)
{
    GstElement *playbin = gst_element_factory_make("playbin", "play audio clip");
    if (!playbin) {
        return "Could not create playbin.";
    }
    clip->pipeline = GST_ELEMENT(gst_object_ref_sink(playbin));
    clip->repeat = request->repeat;

    const double level = request->volume / 100.0;
    g_object_set(playbin, "uri", uri, "volume", level, nullptr);
    g_autoptr(GstElement) sink = get_sink(clip, request);
    if (!sink) {
        gst_object_unref(g_steal_pointer(&clip->pipeline));
        return "Could not create alsasink.";
    }
    g_object_set(sink, "latency-time", SINK_LATENCY_TIME_US, nullptr);
    g_object_set(playbin, "audio-sink", sink, nullptr);
    clip_volume_prepare(playbin, sink, level);
    gst_pipeline_set_latency(GST_PIPELINE(playbin), PIPELINE_LATENCY);
    return nullptr;
}

/* Records that the request is playing and sends its events. The caller holds `state_lock`. */
void set_playing(AudioClip *clip, const PlayRequest *request, const char *uri)
{
    announce_file(uri, request->output);
    clip->output = request->output;
    clip->active = true;
    announce_state(true, clip->output);
}

/*
 * Plays `uri` as the first clip of the request. Returns null or, on failure, the inner error. The
 * caller holds `state_lock`.
 */
const char *play(AudioClip *clip, const PlayRequest *request, const char *uri)
{
    if (clip->pipeline) {
        return "Failed to request a pipeline, already playing.";
    }
    clip_warm_up_skip_rehearsal();
    const char *error = create_pipeline(clip, request, uri);
    if (error) {
        return error;
    }

    g_autoptr(GstBus) bus = gst_element_get_bus(clip->pipeline);
    if (!bus) {
        return "Could not get pipeline bus."; /* the next stop releases the pipeline */
    }
    gst_bus_set_sync_handler(bus, drop_ignored_message, nullptr, nullptr);
    clip->bus_watch_id =
        gst_bus_add_watch_full(bus, G_PRIORITY_DEFAULT, audio_clip_on_bus_message, clip, nullptr);

    clip_switch_open(&clip->clip_switch);
    g_signal_connect(clip->pipeline, "source-setup", G_CALLBACK(audio_clip_on_source_setup), clip);
    if (clip->repeat != 0 &&
        g_signal_connect(clip->pipeline, "about-to-finish",
                         G_CALLBACK(audio_clip_on_about_to_finish), clip) == 0) {
        g_warning("%sCould not connect to about-to-finish signal.", "");
    }
    if (gst_element_set_state(clip->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        audio_clip_stop_pipeline(clip, false);
        return "Could not set receive pipeline to playing.";
    }
    set_playing(clip, request, uri);
    return nullptr;
}

/* Does the work of audio_clip_start(). The caller holds `state_lock`. */
char *start_request(AudioClip *clip, const char *options)
{
    if (clip->active) {
        return g_strdup("A clip is already playing.");
    }
    g_auto(PlayRequest) request;
    /* The vendor sink chooses the output itself, so the options for it are ignored. */
    if (!audio_clip_parse_options(options, &request.location, &request.volume, &request.repeat,
                                  clip->vesk_sink ? nullptr : &request.output.audio_output,
                                  &request.output.audio_device_id, &request.output.audio_output_id,
                                  &request.alsa_device)) {
        return g_strdup_printf("Failed to parse/validate option string: '%s'",
                               options ? options : "(null)");
    }
    if (!playlist_add_from_wildcard_path(clip->playlist, request.location)) {
        return g_strdup_printf("No supported file(s) found at '%s'.", request.location);
    }
    g_autofree char *uri = playlist_get_random_uri(clip->playlist, nullptr);
    if (!uri) {
        return g_strdup("Could not retrieve any media/audio file");
    }
    /* The file may have been replaced since it was added to the playlist. */
    if (!clip_source_is_playable(uri)) {
        return g_strdup_printf("No supported file(s) found at '%s'.", request.location);
    }
    const char *error = play(clip, &request, uri);
    /* The inner error already ends in a full stop. Callers match on the text with both. */
    return error ? g_strdup_printf("Error playing clip: %s.", error) : nullptr;
}

} // namespace

AudioClip *audio_clip_ref()
{
    AudioClip *clip = &the_clip;
    clip->pipeline = nullptr;
    clip->vesk_sink = gst_element_factory_make("veskaudiosink", "veskaudiosink");
    if (clip->vesk_sink) {
        gst_object_ref_sink(clip->vesk_sink);
        g_object_set(clip->vesk_sink, "source-id", "BRIMOSonoBrik", nullptr);
    } else {
        g_info("%sVesk audiosink not supported", "");
    }
    clip->playlist = playlist_new();
    clip->output = DEFAULT_OUTPUT;
    clip->repeat = 0;
    clip->active = false;
    g_mutex_init(&clip->state_lock);
    g_mutex_init(&clip->request_lock);
    clip_switch_init(&clip->clip_switch);
    return clip;
}

void audio_clip_unref(AudioClip *clip)
{
    if (clip != &the_clip) {
        g_warning("%sTrying to free an invalid AudioClip instance.", "");
        return;
    }
    audio_clip_stop_pipeline(clip, false);
    if (clip->pipeline) {
        /* It could not be stopped, so its streaming threads may still run. */
        g_signal_handlers_disconnect_by_data(clip->pipeline, clip);
    }
    g_clear_handle_id(&clip->stop_timer_id, g_source_remove);
    playlist_free(g_steal_pointer(&clip->playlist));
    g_clear_pointer(&clip->vesk_sink, gst_object_unref);

    if (!g_mutex_trylock(&clip->request_lock) || !g_mutex_trylock(&clip->state_lock)) {
        g_error("%sUngraceful exit: Failed to lock the mutex", "");
    }
    g_mutex_unlock(&clip->state_lock);
    g_mutex_unlock(&clip->request_lock);
    g_mutex_clear(&clip->state_lock);
    g_mutex_clear(&clip->request_lock);
    clip_switch_clear(&clip->clip_switch);
}

char *audio_clip_start(AudioClip *clip, const char *options)
{
    if (!clip) {
        return g_strdup("There is no player.");
    }
    g_mutex_lock(&clip->state_lock);
    char *error = start_request(clip, options);
    /* While another request is playing, the playlist belongs to that one. */
    if (!clip->active) {
        playlist_clear(clip->playlist);
    }
    g_mutex_unlock(&clip->state_lock);
    return error;
}

bool audio_clip_stop(AudioClip *clip, const char *)
{
    if (!clip) {
        return false;
    }
    g_mutex_lock(&clip->request_lock);
    g_mutex_lock(&clip->state_lock);
    /* A timer of this request would end the next one. */
    g_clear_handle_id(&clip->stop_timer_id, g_source_remove);
    if (clip->pipeline) {
        audio_clip_stop_pipeline(clip, true);
        playlist_clear(clip->playlist);
    }
    if (clip->active) {
        clip->active = false;
        announce_state(false, clip->output);
    }
    clip->repeat = 0;
    audioclip_dbus_notify_request_finished();
    g_mutex_unlock(&clip->state_lock);
    g_mutex_unlock(&clip->request_lock);
    return true;
}

bool audio_clip_is_active(AudioClip *clip)
{
    if (!clip) {
        return false;
    }
    g_mutex_lock(&clip->state_lock);
    const bool active = clip->active;
    g_mutex_unlock(&clip->state_lock);
    return active;
}
