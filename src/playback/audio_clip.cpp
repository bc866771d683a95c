#include "audio_clip.h"

#include <cstdlib>
#include <gst/gst.h>

#include "audio_clip_options.h"
#include "audioclip_dbus.h"
#include "log_level.h"
#include "playlist.h"
#include "sonobrik_events.h"

/*
 * `request_lock` comes before `state_lock`. A stop holds both for its whole length, in which it
 * waits for the streaming thread; that thread therefore only tries `request_lock`.
 */
struct AudioClip {
    GMutex state_lock;      /* guards every field below */
    GMutex request_lock;    /* held for a whole stop */
    bool active;            /* a request plays: set by a successful start, cleared by stop */
    GstElement *pipeline;   /* owned; the current "playbin" or null */
    GstElement *vesk_sink;  /* owned; the device's own sink, made once; null: play through ALSA */
    Playlist *playlist;     /* owned; the files of the request that plays */
    gint32 repeat;          /* clips still to chain; -1 without end */
    guint bus_watch_id;     /* zero also in the delay between the end of the stream and the stop */
    guint stop_timer_id;    /* the timer of that delay, zero when none */
    gint32 audio_output;    /* these three: the output that plays, as the events know it */
    gint32 audio_device_id; /* -1 if none */
    gint32 audio_output_id; /* -1 if none */
};

namespace
{

constexpr guint STOP_DELAY_MS = 300;
constexpr gint64 SINK_LATENCY_TIME_US = 20000;
constexpr GstClockTime PIPELINE_LATENCY = 100 * GST_MSECOND;
constexpr GstClockTime STATE_CHANGE_TIMEOUT = 3 * GST_SECOND;

AudioClip the_clip;

/* A play request as its options describe it. */
struct PlayRequest {
    char *location = nullptr; /* owned */
    gint32 volume = 100;
    gint32 repeat = 0;
    gint32 audio_output = 0;
    gint32 audio_device_id = -1;
    gint32 audio_output_id = -1;
    char *alsa_device = nullptr; /* owned */
};

void play_request_clear(PlayRequest *request)
{
    g_clear_pointer(&request->location, g_free);
    g_clear_pointer(&request->alsa_device, g_free);
}

G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(PlayRequest, play_request_clear)

/* Tells the events which file plays on an output. Called from any thread. */
void announce_file(const char *uri, gint32 audio_output, gint32 audio_device_id,
                   gint32 audio_output_id)
{
    g_autofree char *path = gst_uri_get_location(uri);
    sonobrik_events_set_file(path, audio_output, audio_device_id, audio_output_id);
}

struct StateChange {
    GstElement *pipeline; /* borrowed; kept by the player unless the change succeeds */
    GAsyncQueue *results; /* a reference; takes the result plus one, since null is no entry */
};

gpointer set_pipeline_to_null(gpointer data)
{
    auto *change = static_cast<StateChange *>(data);
    const GstStateChangeReturn result = gst_element_set_state(change->pipeline, GST_STATE_NULL);
    g_async_queue_push(change->results, GINT_TO_POINTER(result + 1));
    g_async_queue_unref(change->results);
    g_free(change);
    return nullptr;
}

/*
 * Sets the pipeline to null. The change is asynchronous if it is not through in time. A sink whose
 * device takes no more samples blocks for ever in it, so it runs on a thread of its own, which is
 * then left behind.
 */
GstStateChangeReturn silence(GstElement *pipeline)
{
    g_autoptr(GAsyncQueue) results = g_async_queue_new();
    auto *change = g_new0(StateChange, 1);
    *change = {pipeline, g_async_queue_ref(results)};
    GThread *thread = g_thread_try_new("silence", set_pipeline_to_null, change, nullptr);
    if (!thread) {
        set_pipeline_to_null(change);
    }
    const gpointer entry =
        g_async_queue_timeout_pop(results, GST_TIME_AS_USECONDS(STATE_CHANGE_TIMEOUT));
    if (!entry) {
        g_thread_unref(thread);
        return GST_STATE_CHANGE_ASYNC;
    }
    if (thread) {
        g_thread_join(thread);
    }
    const auto result = static_cast<GstStateChangeReturn>(GPOINTER_TO_INT(entry) - 1);
    if (result != GST_STATE_CHANGE_ASYNC) {
        return result;
    }
    return gst_element_get_state(pipeline, nullptr, nullptr, STATE_CHANGE_TIMEOUT);
}

/* Caller holds the locks, where there is another thread to hold them against. */
void audio_clip_stop_pipeline(AudioClip *clip, bool exit_on_failure)
{
    if (clip->pipeline) {
        const GstStateChangeReturn result = silence(clip->pipeline);
        if (result == GST_STATE_CHANGE_ASYNC) {
            g_warning("%sIt took too long to set the pipeline to GST_STATE_NULL.", "");
        }
        if (result == GST_STATE_CHANGE_SUCCESS || result == GST_STATE_CHANGE_NO_PREROLL) {
            gst_object_unref(g_steal_pointer(&clip->pipeline));
        } else {
            log_error("%sCould not set the pipeline to GST_STATE_NULL.", "");
            if (exit_on_failure) {
                /* A player that cannot be silenced is of no use: the service manager starts anew.
                 */
                exit(EXIT_FAILURE);
            }
        }
    }
    if (clip->bus_watch_id != 0) {
        g_source_remove(clip->bus_watch_id);
        clip->bus_watch_id = 0;
    }
}

/* The timer belongs to its request: left alone, it would end the next one. Caller holds the lock.
 */
void remove_stop_timer(AudioClip *clip)
{
    if (clip->stop_timer_id != 0) {
        g_source_remove(clip->stop_timer_id);
        clip->stop_timer_id = 0;
    }
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
 * The stream has ended: lets the output play out what it holds before the stop. The bus watch ends
 * with this message. Returns false when there is no timer.
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

gboolean audio_clip_on_bus_message(GstBus *, GstMessage *message, gpointer user_data)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_EOS:
        if (!start_stop_timer(clip)) {
            audio_clip_stop(clip, nullptr);
        }
        return G_SOURCE_REMOVE;
    case GST_MESSAGE_ERROR: {
        g_autoptr(GError) error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        log_error("%sError received from element '%s': %s", "", GST_MESSAGE_SRC_NAME(message),
                  error->message);
        audio_clip_stop(clip, nullptr);
        return G_SOURCE_REMOVE;
    }
    default:
        return G_SOURCE_CONTINUE;
    }
}

/* Chains the next clip, if one is left to chain. Caller holds both locks. */
void chain_next_clip(AudioClip *clip, GstElement *playbin)
{
    if (clip->repeat == 0) {
        return;
    }
    if (clip->repeat >= 1) {
        clip->repeat--;
    }
    g_autofree char *current_uri = nullptr;
    g_object_get(playbin, "current-uri", &current_uri, nullptr);
    g_autofree char *uri = playlist_get_random_uri(clip->playlist, current_uri);
    if (uri && clip->pipeline) {
        g_object_set(clip->pipeline, "uri", uri, nullptr);
        announce_file(uri, clip->audio_output, clip->audio_device_id, clip->audio_output_id);
    }
}

/* Called on a streaming thread. */
void audio_clip_on_about_to_finish(GstElement *playbin, gpointer user_data)
{
    auto *clip = static_cast<AudioClip *>(user_data);
    if (!g_mutex_trylock(&clip->request_lock)) {
        return; /* a stop waits for this thread */
    }
    g_mutex_lock(&clip->state_lock);
    chain_next_clip(clip, playbin);
    g_mutex_unlock(&clip->state_lock);
    g_mutex_unlock(&clip->request_lock);
}

/* Returns a new reference to the sink that plays the request, or null. */
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

/* Makes the pipeline that plays `uri`. Returns null or, on failure, the inner error. */
const char *create_pipeline(AudioClip *clip, const PlayRequest *request, const char *uri)
{
    GstElement *playbin = gst_element_factory_make("playbin", "play audio clip");
    if (!playbin) {
        return "Could not create playbin.";
    }
    clip->pipeline = GST_ELEMENT(gst_object_ref_sink(playbin));
    clip->repeat = request->repeat;

    g_object_set(playbin, "uri", uri, nullptr);
    g_object_set(playbin, "volume", request->volume / 100.0, nullptr);
    g_autoptr(GstElement) sink = get_sink(clip, request);
    if (!sink) {
        gst_object_unref(g_steal_pointer(&clip->pipeline));
        return "Could not create alsasink.";
    }
    g_object_set(sink, "latency-time", SINK_LATENCY_TIME_US, nullptr);
    g_object_set(playbin, "audio-sink", sink, nullptr);
    gst_pipeline_set_latency(GST_PIPELINE(playbin), PIPELINE_LATENCY);
    return nullptr;
}

/* The request plays: notes where, and tells the events. */
void set_playing(AudioClip *clip, const PlayRequest *request, const char *uri)
{
    announce_file(uri, request->audio_output, request->audio_device_id, request->audio_output_id);
    clip->audio_output = request->audio_output;
    clip->audio_device_id = request->audio_device_id;
    clip->audio_output_id = request->audio_output_id;
    clip->active = true;
    sonobrik_events_set_file_state(true, request->audio_output, request->audio_device_id,
                                   request->audio_output_id);
}

/* Plays `uri` as the first clip of the request. Returns null or, on failure, the inner error. */
const char *play(AudioClip *clip, const PlayRequest *request, const char *uri)
{
    if (clip->pipeline) {
        return "Failed to request a pipeline, already playing.";
    }
    const char *error = create_pipeline(clip, request, uri);
    if (error) {
        return error;
    }

    g_autoptr(GstBus) bus = gst_element_get_bus(clip->pipeline);
    if (!bus) {
        return "Could not get pipeline bus."; /* keeps the pipeline on purpose: a stop ends it */
    }
    clip->bus_watch_id =
        gst_bus_add_watch_full(bus, G_PRIORITY_DEFAULT, audio_clip_on_bus_message, clip, nullptr);

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

/* Does the work of audio_clip_start(). Caller holds `state_lock`. */
char *start_request(AudioClip *clip, const char *options)
{
    if (clip->active) {
        return g_strdup("A clip is already playing.");
    }
    g_auto(PlayRequest) request;
    /* The device's own sink knows where to play; only ALSA is told. */
    if (!audio_clip_parse_options(options, &request.location, &request.volume, &request.repeat,
                                  clip->vesk_sink ? nullptr : &request.audio_output,
                                  &request.audio_device_id, &request.audio_output_id,
                                  &request.alsa_device)) {
        return g_strdup_printf("Failed to parse/validate option string: '%s'", options);
    }
    if (!playlist_add_from_wildcard_path(clip->playlist, request.location)) {
        return g_strdup_printf("No supported file(s) found at '%s'.", request.location);
    }
    g_autofree char *uri = playlist_get_random_uri(clip->playlist, nullptr);
    if (!uri) {
        return g_strdup("Could not retrieve any media/audio file");
    }
    const char *error = play(clip, &request, uri);
    /* The inner error has its full stop already; callers know the text with both. */
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
    clip->audio_device_id = -1;
    clip->audio_output_id = -1;
    clip->repeat = 0;
    clip->active = false;
    clip->audio_output = 0;
    g_mutex_init(&clip->state_lock);
    g_mutex_init(&clip->request_lock);
    return clip;
}

void audio_clip_unref(AudioClip *clip)
{
    if (clip != &the_clip) {
        g_warning("%sTrying to free an invalid AudioClip instance.", "");
        return;
    }
    audio_clip_stop_pipeline(clip, false);
    remove_stop_timer(clip);
    playlist_free(g_steal_pointer(&clip->playlist));
    g_clear_pointer(&clip->vesk_sink, gst_object_unref);

    if (!g_mutex_trylock(&clip->request_lock) || !g_mutex_trylock(&clip->state_lock)) {
        g_error("%sUngraceful exit: Failed to lock the mutex", "");
    }
    g_mutex_unlock(&clip->state_lock);
    g_mutex_unlock(&clip->request_lock);
    g_mutex_clear(&clip->state_lock);
    g_mutex_clear(&clip->request_lock);
}

char *audio_clip_start(AudioClip *clip, const char *options)
{
    g_mutex_lock(&clip->state_lock);
    char *error = start_request(clip, options);
    /* A failed request leaves nothing behind; a refused one leaves the playing request's files. */
    if (!clip->active) {
        playlist_clear(clip->playlist);
    }
    g_mutex_unlock(&clip->state_lock);
    return error;
}

bool audio_clip_stop(AudioClip *clip, const char *)
{
    g_mutex_lock(&clip->request_lock);
    g_mutex_lock(&clip->state_lock);
    remove_stop_timer(clip);
    if (clip->pipeline) {
        audio_clip_stop_pipeline(clip, true);
        playlist_clear(clip->playlist);
    }
    if (clip->active) {
        clip->active = false;
        sonobrik_events_set_file_state(false, clip->audio_output, clip->audio_device_id,
                                       clip->audio_output_id);
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
