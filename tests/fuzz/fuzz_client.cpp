/* Fuzzes what sonobrikctl and the web program read: the daemon's replies and events. */

#include <fuzzer/FuzzedDataProvider.h>
#include <glib.h>
#include <string>

#include "autoptr.h"
#include "bus_text.h"
#include "client_bus.h"
#include "client_clips.h"
#include "client_events.h"
#include "client_text.h"
#include "fuzz_bus.h"
#include "fuzz_input.h"

/* The kind of reply that an input contains; its first byte. */
static constexpr char METADATA = 'm'; /* the rest is the JSON text of GetMetadata */
static constexpr char LISTING = 'l';
static constexpr char EVENTS = 'e';

static FuzzBus bus;
static std::string metadata;
static FuzzedDataProvider *content;

static const char *choose(const char *first, const char *second)
{
    return content->ConsumeBool() ? first : second;
}

/* Opens an entry of a dictionary with a text as its key. */
static void open_entry(sd_bus_message *m, const char *types, const char *key)
{
    g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, types) >= 0);
    g_assert(sd_bus_message_append_basic(m, types[0], key) >= 0);
}

static void close_containers(sd_bus_message *m, int count)
{
    while (count-- > 0) {
        g_assert(sd_bus_message_close_container(m) >= 0);
    }
}

/* Appends an a{sv}. Its keys are those that the clients read, or others. */
static void append_properties(sd_bus_message *m, bool is_event)
{
    static const char *const event_keys[] = {
        "topic0", "topic1", "FileName", "Playing", "AudioDeviceId", "AudioOutputId", "AudioOutput"};
    g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}") >= 0);
    if (is_event && content->ConsumeBool()) {
        const char *topic = choose("Playing", "CurrentlyPlaying");
        g_assert(sd_bus_message_append(m, "{sv}", "topic0", "s", "SonoBrik") >= 0);
        g_assert(sd_bus_message_append(m, "{sv}", "topic1", "s", topic) >= 0);
    }
    for (int i = content->ConsumeIntegralInRange(0, 8); i > 0; i--) {
        std::string key = choose("Name", "Location");
        if (is_event) {
            key = event_keys[content->ConsumeIntegralInRange<size_t>(0, std::size(event_keys) - 1)];
        }
        open_entry(m, "sv", content->ConsumeBool() ? key.c_str() : fuzz_bus_text(content).c_str());
        fuzz_bus_append_variant(m, content);
        close_containers(m, 1);
    }
    close_containers(m, 1);
}

static void append_listing(sd_bus_message *m)
{
    g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{ia{sv}}") >= 0);
    for (int i = content->ConsumeIntegralInRange(0, 4); i > 0; i--) {
        const int32_t number = content->ConsumeIntegral<int32_t>();
        g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, "ia{sv}") >= 0);
        g_assert(sd_bus_message_append(m, "i", number) >= 0);
        append_properties(m, false);
        close_containers(m, 1);
    }
    close_containers(m, 1);
}

static void append_objects(sd_bus_message *m)
{
    g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}") >= 0);
    for (int i = content->ConsumeIntegralInRange(0, 4); i > 0; i--) {
        open_entry(m, "oa{sa{sv}}", "/a");
        g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sa{sv}}") >= 0);
        open_entry(m, "sa{sv}", choose(CLIENT_EVENT_INTERFACE, "a.b"));
        g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}") >= 0);
        open_entry(m, "sv", choose("Keys", "Topics"));
        if (content->ConsumeBool()) {
            g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, "a{sv}") >= 0);
            append_properties(m, true);
            close_containers(m, 1);
        } else {
            fuzz_bus_append_variant(m, content);
        }
        close_containers(m, 5);
    }
    close_containers(m, 1);
}

static void append_reply(sd_bus_message *m, std::string_view member)
{
    if (member == "GetMetadata") {
        g_assert(sd_bus_message_append(m, "s", metadata.c_str()) >= 0);
    } else if (!content) {
        g_assert(sd_bus_message_append(m, "a{ia{sv}}", 2, 0, 1, "Name", "s", "a", 7, 0) >= 0);
    } else if (content->ConsumeBool()) {
        fuzz_bus_append_variant(m, content);
    } else if (member == "GetConfigurations") {
        append_listing(m);
    } else {
        append_objects(m);
    }
}

extern "C" int __wrap_sd_bus_call(sd_bus *, sd_bus_message *call, uint64_t, sd_bus_error *,
                                  sd_bus_message **reply)
{
    const std::string member = sd_bus_message_get_member(call);
    g_assert(sd_bus_message_seal(call, 1, 0) >= 0);
    g_assert(sd_bus_message_new_method_return(call, reply) >= 0);
    append_reply(*reply, member);
    g_assert(sd_bus_message_seal(*reply, 2, 0) >= 0);
    g_assert(sd_bus_message_rewind(*reply, true) >= 0);
    return 1;
}

static void check_text(const char *text)
{
    const std::string shown = client_text_escape(text);
    g_assert(g_utf8_validate(shown.c_str(), -1, nullptr));
    for (const char *c = shown.c_str(); *c != '\0'; c = g_utf8_next_char(c)) {
        g_assert(!g_unichar_iscntrl(g_utf8_get_char(c)));
    }
}

static void check_clips(const GPtrArray *clips)
{
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        check_text(clip->name);
        check_text(client_clips_relative(clip->location));
        g_assert(!client_text_duration(clip->duration_ms).empty());
        g_assert(!client_text_size(clip->size_kib).empty());
        g_autoptr(GError) error = nullptr;
        const ClientClip *found = client_clips_find(clips, clip->name, &error);
        g_assert(!found == !!error);
    }
}

static void list_clips(bool with_metadata)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GPtrArray) clips = client_clips_list(bus.client, with_metadata, &error);
    g_assert(!clips == !!error);
    if (clips) {
        check_clips(clips);
    }
}

static void list_outputs()
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus.client, &error);
    g_assert(!outputs == !!error);
    for (guint i = 0; outputs && i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        check_text(output->file_name);
        g_assert(output->output >= 0);
    }
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_input_setup("client");
    bus = fuzz_bus_connect();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    FuzzedDataProvider input(data + 1, size - 1);
    content = data[0] == METADATA ? nullptr : &input;
    switch (data[0]) {
    case METADATA: {
        const std::string bytes = input.ConsumeRemainingBytesAsString();
        g_autofree char *text = bus_text_make_valid(bytes.c_str());
        metadata = text;
        list_clips(true);
        return 0;
    }
    case LISTING:
        list_clips(false);
        return 0;
    case EVENTS:
        list_outputs();
        return 0;
    default:
        return 0;
    }
}
