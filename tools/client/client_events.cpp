#include "client_events.h"

#include "autoptr.h"
#include "client_bus.h"

const char *const CLIENT_EVENTS_SERVICE = "com.vesk.Events1.SonoBrikEvents";
const char *const CLIENT_EVENTS_OBJECT = "/com/vesk/Events1/SonoBrikEvents";
const char *const CLIENT_EVENT_INTERFACE = "com.vesk.Events1.Event";
const char *const CLIENT_TIME_INTERFACE = "com.vesk.Events1.Time";

namespace
{

constexpr ClientInterface EVENTS = {
    .service = "com.vesk.Events1.SonoBrikEvents",
    .object = "/com/vesk/Events1/SonoBrikEvents",
    .interface = "org.freedesktop.DBus.ObjectManager",
};

/* The keys of a playing event. A key that is missing or of an unexpected type stays null or 0. */
struct Keys {
    const char *topic0;
    const char *topic1;
    const char *file_name;
    gint32 audio_output; /* counts from 1 */
    gint32 device;
    gint32 device_output;
    int playing;
};

/* Returns where to store the value of a key, and its type; null for an unknown key. */
void *find_place(Keys *keys, const char *name, const char **type)
{
    const struct {
        const char *name;
        const char *type;
        void *place;
    } known[] = {
        {"topic0", "s", &keys->topic0},        {"topic1", "s", &keys->topic1},
        {"FileName", "s", &keys->file_name},   {"AudioOutput", "i", &keys->audio_output},
        {"AudioDeviceId", "i", &keys->device}, {"AudioOutputId", "i", &keys->device_output},
        {"Playing", "b", &keys->playing},
    };
    for (const auto &key : known) {
        if (g_str_equal(key.name, name)) {
            *type = key.type;
            return key.place;
        }
    }
    return nullptr;
}

/* An object on the bus that represents an event. */
struct EventObject {
    bool is_playing_event; /* `event` is set */
    ClientEvent event;
    guint64 last_sent; /* 0 if unknown */
    guint64 now;       /* 0 if unknown */
};

/* Updates the event's output in `outputs`, or adds it. */
void apply_event(GPtrArray *outputs, const EventObject &object)
{
    const ClientEvent &event = object.event;
    ClientOutput *output = nullptr;
    for (guint i = 0; i < outputs->len && !output; i++) {
        auto *candidate = static_cast<ClientOutput *>(g_ptr_array_index(outputs, i));
        if (candidate->device == event.device && candidate->device_output == event.device_output) {
            output = candidate;
        }
    }
    if (!output) {
        output = g_new0(ClientOutput, 1);
        output->output = event.output;
        output->device = event.device;
        output->device_output = event.device_output;
        output->file_name = g_strdup("");
        g_ptr_array_add(outputs, output);
    }
    if (event.is_state) {
        output->playing = event.playing;
    } else {
        g_free(output->file_name);
        output->file_name = g_strdup(event.file_name);
        output->file_since = object.last_sent;
        output->now = object.now;
    }
}

/* Reads the a{sv} of the properties of an event. */
int read_event(sd_bus_message *m, EventObject *object)
{
    return client_bus_read_properties(m, [m, object](const char *name, const char *) {
        if (!g_str_equal(name, "Keys")) {
            return 0;
        }
        int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "a{sv}");
        if (r < 0 || (r = client_event_read(m, &object->event)) < 0) {
            return r;
        }
        object->is_playing_event = r > 0;
        r = sd_bus_message_exit_container(m);
        return r < 0 ? r : 1;
    });
}

/* Reads the a{sv} of the properties of the interface with the time. */
int read_time(sd_bus_message *m, EventObject *object)
{
    return client_bus_read_properties(m, [m, object](const char *name, const char *type) {
        if (!g_str_equal(type, "t")) {
            return 0;
        }
        return g_str_equal(name, "LastSent") ? sd_bus_message_read(m, "v", "t", &object->last_sent)
               : g_str_equal(name, "Now")    ? sd_bus_message_read(m, "v", "t", &object->now)
                                             : 0;
    });
}

/* Reads the a{sa{sv}} of an object's interfaces. */
int read_interfaces(sd_bus_message *m, GPtrArray *outputs)
{
    EventObject object = {};
    const int result = client_bus_read_dict(m, "sa{sv}", [m, &object] {
        const char *name = nullptr;
        const int r = sd_bus_message_read(m, "s", &name);
        if (r < 0) {
            return r;
        }
        return g_str_equal(name, CLIENT_EVENT_INTERFACE)  ? read_event(m, &object)
               : g_str_equal(name, CLIENT_TIME_INTERFACE) ? read_time(m, &object)
                                                          : sd_bus_message_skip(m, "a{sv}");
    });
    if (result >= 0 && object.is_playing_event) {
        apply_event(outputs, object);
    }
    return result;
}

/* Reads the a{oa{sa{sv}}} of all objects. */
int read_objects(sd_bus_message *m, GPtrArray *outputs)
{
    return client_bus_read_dict(m, "oa{sa{sv}}", [m, outputs] {
        const int r = sd_bus_message_skip(m, "o");
        return r < 0 ? r : read_interfaces(m, outputs);
    });
}

void free_output(void *output)
{
    client_output_free(static_cast<ClientOutput *>(output));
}

int compare_outputs(const void *a, const void *b)
{
    const auto *first = *static_cast<const ClientOutput *const *>(a);
    const auto *second = *static_cast<const ClientOutput *const *>(b);
    return first->output < second->output ? -1 : first->output > second->output;
}

} // namespace

void client_output_free(ClientOutput *output)
{
    if (!output) {
        return;
    }
    g_free(output->file_name);
    g_free(output);
}

int client_event_read(sd_bus_message *m, ClientEvent *event)
{
    Keys keys = {};
    const int r = client_bus_read_properties(m, [m, &keys](const char *name, const char *contents) {
        const char *type = nullptr;
        void *place = find_place(&keys, name, &type);
        return place && g_str_equal(contents, type) ? sd_bus_message_read(m, "v", type, place) : 0;
    });
    if (r < 0) {
        return r;
    }
    const bool is_state = g_strcmp0(keys.topic1, "Playing") == 0;
    if (g_strcmp0(keys.topic0, "SonoBrik") != 0 ||
        (!is_state && g_strcmp0(keys.topic1, "CurrentlyPlaying") != 0)) {
        return 0;
    }
    *event = {
        .is_state = is_state,
        .output = keys.audio_output > 0 ? keys.audio_output - 1 : 0,
        .device = keys.device,
        .device_output = keys.device_output,
        .playing = keys.playing != 0,
        .file_name = keys.file_name ? keys.file_name : "",
    };
    return 1;
}

GPtrArray *client_outputs_list(sd_bus *bus, GError **error)
{
    sd_bus_message *call = client_bus_new_call(bus, &EVENTS, "GetManagedObjects", error, nullptr);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, error);
    return answer ? client_outputs_read(answer, error) : nullptr;
}

GPtrArray *client_outputs_read(sd_bus_message *answer, GError **error)
{
    g_autoptr(GPtrArray) outputs = g_ptr_array_new_with_free_func(free_output);
    const int r = read_objects(answer, outputs);
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_REPLY, "%s", g_strerror(-r));
        return nullptr;
    }
    g_ptr_array_sort(outputs, compare_outputs);
    return g_steal_pointer(&outputs);
}
