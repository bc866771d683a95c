#include "sonobrik_events.h"

#include <array>

#include "audio_output.h"
#include "device_utils.h"
#include "event_templates.h"
#include "log_level.h"
#include "platform/event_service.h"
#include "sonobrik_param_events.h"

namespace
{

constexpr gint32 NO_ID = -1;
constexpr size_t OUTPUT_COUNT = DEVICE_UTILS_MAX_ID + 1;
constexpr guint MAX_RETRIES = 5;

/* The two kinds of event. Their numbers are part of the keys of `event_ids_by_device`. */
enum EventKind { CURRENTLY_PLAYING_EVENT = 0, PLAYING_EVENT = 1 };

/* Ids of declared events by audio output number; 0 where there is none. */
using EventIds = std::array<guint, OUTPUT_COUNT>;

struct sonobrik_events_state {
    EventProducer *producer; /* owned; null when the event system cannot be reached */
    EventIds file_name_event_ids;
    EventIds playing_event_ids;
    GHashTable *event_ids_by_device; /* owned; "kind:device:output" to event id */
    bool declared; /* the event system has acknowledged a CurrentlyPlaying event */
};

sonobrik_events_state state;

/* A file name that waits for the main loop to send it. */
struct event_file_request {
    char *file_name; /* owned */
    AudioOutputIds output;
    guint retries;
};

EventIds &event_ids(EventKind kind)
{
    return kind == PLAYING_EVENT ? state.playing_event_ids : state.file_name_event_ids;
}

/* Returns the hash key of an output's event, a new string. */
char *device_key(EventKind kind, const AudioOutputIds &output)
{
    return g_strdup_printf("%d:%u:%u", kind, static_cast<guint>(output.audio_device_id),
                           static_cast<guint>(output.audio_output_id));
}

/*
 * Stores the id of a declared event. An output whose number is above DEVICE_UTILS_MAX_ID has no
 * slot: no request can name it by number, so its events are found by device and output id alone.
 */
void store_event_id(EventKind kind, guint id, const AudioOutputIds &output)
{
    if (device_utils_in_range(output.audio_output)) {
        event_ids(kind)[output.audio_output] = id;
    }
    if (output.audio_device_id != NO_ID && output.audio_output_id != NO_ID) {
        g_hash_table_insert(state.event_ids_by_device, device_key(kind, output),
                            GUINT_TO_POINTER(id));
    }
}

/* Returns the id of an output's event, or 0. */
guint find_event_id(EventKind kind, const AudioOutputIds &output)
{
    if (output.audio_output != NO_ID) {
        return device_utils_in_range(output.audio_output) ? event_ids(kind)[output.audio_output]
                                                          : 0;
    }
    if (!state.event_ids_by_device) {
        return 0;
    }
    g_autofree char *key = device_key(kind, output);
    return GPOINTER_TO_UINT(g_hash_table_lookup(state.event_ids_by_device, key));
}

void log_event_not_found(const char *operation, const AudioOutputIds &output)
{
    g_warning(
        "%s%s Failed to find event id for audio output %d or audio device id %d and audio output id %d",
        "", operation, output.audio_output, output.audio_device_id, output.audio_output_id);
}

void on_currently_playing_declared(guint, void *)
{
    state.declared = true;
}

void on_event_sent(guint id, void *, GError *error)
{
    if (error) {
        g_warning("%sFailed to send event with id: %d: %s", "", id, error->message);
        g_error_free(error);
    }
}

void declare_playing_event(gint32 audio_output, gint32 audio_device_id, gint32 audio_output_id)
{
    const AudioOutputIds output = {audio_output, audio_device_id, audio_output_id};
    g_autoptr(EventTemplate) event_template = event_templates_new_playing(output);
    if (event_template) {
        const guint id = event_service_declare(state.producer, event_template);
        store_event_id(PLAYING_EVENT, id, output);
    }
}

void declare_currently_playing_event(gint32 audio_output, gint32 audio_device_id,
                                     gint32 audio_output_id)
{
    const AudioOutputIds output = {audio_output, audio_device_id, audio_output_id};
    g_autoptr(EventTemplate) event_template = event_templates_new_currently_playing(output);
    if (event_template) {
        const guint id = event_service_declare_notify(state.producer, event_template,
                                                      on_currently_playing_declared, nullptr);
        store_event_id(CURRENTLY_PLAYING_EVENT, id, output);
    }
}

void send_file_name(const event_file_request *request)
{
    const guint id = find_event_id(CURRENTLY_PLAYING_EVENT, request->output);
    if (id == 0) {
        log_event_not_found("event_set_file_mainloop", request->output);
        return;
    }
    Event *event = event_service_prepare(state.producer, id);
    if (!event) {
        log_error("%sFailed to prepare event.", "");
        return;
    }
    if (event_value_set(event, "FileName", request->file_name)) {
        event_service_send_async(state.producer, event, on_event_sent, nullptr);
    } else {
        log_error("%sFailed to set event state for id: %d", "", id);
    }
    event_release(event);
}

/*
 * Runs on the main loop as an idle source that owns the request. If no CurrentlyPlaying event has
 * been acknowledged yet, waits for MAX_RETRIES turns of the loop, then drops the request.
 */
gboolean event_set_file_mainloop(gpointer user_data)
{
    auto *request = static_cast<event_file_request *>(user_data);
    if (state.declared) {
        send_file_name(request);
        return G_SOURCE_REMOVE;
    }
    if (request->retries < MAX_RETRIES) {
        request->retries++;
        return G_SOURCE_CONTINUE;
    }
    return G_SOURCE_REMOVE;
}

void event_file_request_free(gpointer data)
{
    auto *request = static_cast<event_file_request *>(data);
    g_free(request->file_name);
    g_free(request);
}

} // namespace

bool sonobrik_events_setup()
{
    state.declared = false;
    state.producer = event_service_open("SonoBrikEvents");
    state.event_ids_by_device = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
    device_utils_for_each_id(declare_playing_event);
    device_utils_for_each_id(declare_currently_playing_event);
    return sonobrik_param_events_setup(state.producer);
}

void sonobrik_events_teardown()
{
    sonobrik_param_events_teardown();
    g_clear_pointer(&state.event_ids_by_device, g_hash_table_destroy);
    g_clear_pointer(&state.producer, event_service_close);
}

void sonobrik_events_set_file_state(bool playing, gint32 audio_output, gint32 audio_device_id,
                                    gint32 audio_output_id)
{
    const AudioOutputIds output = {audio_output, audio_device_id, audio_output_id};
    const guint id = find_event_id(PLAYING_EVENT, output);
    if (id == 0) {
        log_event_not_found("sonobrik_events_set_file_state", output);
        return;
    }
    Event *event = event_service_prepare_async(state.producer, id);
    if (!event) {
        g_warning("%sFailed to prepare event.", "");
        return;
    }
    const gboolean value = playing;
    if (event_value_set(event, "Playing", &value)) {
        event_service_send_async(state.producer, event, on_event_sent, nullptr);
    } else {
        g_warning("%sFailed to set event state for id: %d", "", id);
    }
    event_release(event);
}

void sonobrik_events_set_file(const char *file_name, gint32 audio_output, gint32 audio_device_id,
                              gint32 audio_output_id)
{
    if (!file_name) {
        return;
    }
    auto *request = g_new0(event_file_request, 1);
    request->file_name = g_strdup(file_name);
    request->output = {audio_output, audio_device_id, audio_output_id};
    g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, event_set_file_mainloop, request,
                    event_file_request_free);
    /* cppcheck-suppress memleak ; the idle source owns the request */
}
