#include "client_events.h"

#include "autoptr.h"
#include "client_bus.h"

const char *const CLIENT_EVENTS_SERVICE = "com.vesk.Events1.SonoBrikEvents";
const char *const CLIENT_EVENTS_OBJECT = "/com/vesk/Events1/SonoBrikEvents";
const char *const CLIENT_EVENT_INTERFACE = "com.vesk.Events1.Event";

namespace
{

constexpr ClientInterface EVENTS = {
    .service = "com.vesk.Events1.SonoBrikEvents",
    .object = "/com/vesk/Events1/SonoBrikEvents",
    .interface = "org.freedesktop.DBus.ObjectManager",
};

/* The keys of a playing event, as far as they were there and of the expected type. */
struct Keys {
    const char *topic0;
    const char *topic1;
    const char *file_name;
    gint32 audio_output; /* counts from 1 */
    gint32 device;
    gint32 device_output;
    int playing;
};

/* Where the value of a key goes, and its type. Null for a key that is not known. */
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

int read_key(sd_bus_message *m, Keys *keys)
{
    const char *name = nullptr;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv");
    if (r <= 0 || (r = sd_bus_message_read(m, "s", &name)) < 0) {
        return r;
    }
    const char *contents = nullptr;
    if ((r = sd_bus_message_peek_type(m, nullptr, &contents)) < 0) {
        return r;
    }
    const char *type = nullptr;
    void *place = find_place(keys, name, &type);
    r = place && g_strcmp0(contents, type) == 0 ? sd_bus_message_read(m, "v", type, place)
                                                : sd_bus_message_skip(m, "v");
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) {
        return r;
    }
    return 1;
}

/* Takes the event's news into the output that it is of, which is added if it is new. */
void take_event(GPtrArray *outputs, const ClientEvent &event)
{
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
    }
}

/* Reads one {sv} of an event object's properties. */
int read_property(sd_bus_message *m, GPtrArray *outputs)
{
    const char *name = nullptr;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv");
    if (r <= 0 || (r = sd_bus_message_read(m, "s", &name)) < 0) {
        return r;
    }
    if (!g_str_equal(name, "Keys")) {
        r = sd_bus_message_skip(m, "v");
    } else if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "a{sv}")) >= 0) {
        ClientEvent event = {};
        if ((r = client_event_read(m, &event)) > 0) {
            take_event(outputs, event);
        }
        r = r < 0 ? r : sd_bus_message_exit_container(m);
    }
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) {
        return r;
    }
    return 1;
}

/* Reads one {sa{sv}}, an interface of an object. */
int read_interface(sd_bus_message *m, GPtrArray *outputs)
{
    const char *name = nullptr;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}");
    if (r <= 0 || (r = sd_bus_message_read(m, "s", &name)) < 0) {
        return r;
    }
    if (!g_str_equal(name, CLIENT_EVENT_INTERFACE)) {
        r = sd_bus_message_skip(m, "a{sv}");
    } else if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}")) >= 0) {
        while ((r = read_property(m, outputs)) > 0) {
        }
        r = r < 0 ? r : sd_bus_message_exit_container(m);
    }
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) {
        return r;
    }
    return 1;
}

/* Reads one {oa{sa{sv}}}, an object. */
int read_object(sd_bus_message *m, GPtrArray *outputs)
{
    const char *path = nullptr;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "oa{sa{sv}}");
    if (r <= 0 || (r = sd_bus_message_read(m, "o", &path)) < 0 ||
        (r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sa{sv}}")) < 0) {
        return r;
    }
    while ((r = read_interface(m, outputs)) > 0) {
    }
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0 ||
        (r = sd_bus_message_exit_container(m)) < 0) {
        return r;
    }
    return 1;
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
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    while (r >= 0 && (r = read_key(m, &keys)) > 0) {
    }
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) {
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
    if (!answer) {
        return nullptr;
    }
    g_autoptr(GPtrArray) outputs = g_ptr_array_new_with_free_func(free_output);
    int r = sd_bus_message_enter_container(answer, SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    while (r >= 0 && (r = read_object(answer, outputs)) > 0) {
    }
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_REPLY, "%s", g_strerror(-r));
        return nullptr;
    }
    g_ptr_array_sort(outputs, compare_outputs);
    return g_steal_pointer(&outputs);
}
