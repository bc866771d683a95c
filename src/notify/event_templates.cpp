#include "event_templates.h"

#include <span>

namespace
{

/* The source of a key's initial value. */
enum class Initial {
    NONE,
    TEXT,
    AUDIO_OUTPUT, /* the number plus one: listeners count outputs from 1 */
    AUDIO_DEVICE_ID,
    AUDIO_OUTPUT_ID,
};

struct Key {
    const char *name;
    EventValueType type;
    Initial initial = Initial::NONE;
    const char *text = nullptr; /* the initial value, for Initial::TEXT */
    const char *name_space = nullptr;
    const char *nice_name = nullptr;
    const char *value_nice_name = nullptr;
    const char *tag = nullptr;
};

/* The keys that both events have, except for "topic1". */
constexpr Key TOPIC0 = {.name = "topic0",
                        .type = EVENT_VALUE_STRING,
                        .initial = Initial::TEXT,
                        .text = "SonoBrik",
                        .name_space = "tnsvesk",
                        .value_nice_name = "Sono Brik"};
constexpr Key AUDIO_OUTPUT = {.name = "AudioOutput",
                              .type = EVENT_VALUE_INT,
                              .initial = Initial::AUDIO_OUTPUT,
                              .nice_name = "Audio Output",
                              .tag = "onvif-source"};
constexpr Key AUDIO_DEVICE_ID = {.name = "AudioDeviceId",
                                 .type = EVENT_VALUE_INT,
                                 .initial = Initial::AUDIO_DEVICE_ID,
                                 .nice_name = "Audio Device Id"};
constexpr Key AUDIO_OUTPUT_ID = {.name = "AudioOutputId",
                                 .type = EVENT_VALUE_INT,
                                 .initial = Initial::AUDIO_OUTPUT_ID,
                                 .nice_name = "Audio Output Id"};

constexpr Key playing_keys[] = {
    TOPIC0,
    {.name = "topic1",
     .type = EVENT_VALUE_STRING,
     .initial = Initial::TEXT,
     .text = "Playing",
     .name_space = "tnsvesk",
     .value_nice_name = "Playing"},
    AUDIO_OUTPUT,
    AUDIO_DEVICE_ID,
    AUDIO_OUTPUT_ID,
    {.name = "Playing",
     .type = EVENT_VALUE_BOOL,
     .nice_name = "Playing Status",
     .tag = "onvif-data"},
};

constexpr Key currently_playing_keys[] = {
    TOPIC0,
    {.name = "topic1",
     .type = EVENT_VALUE_STRING,
     .initial = Initial::TEXT,
     .text = "CurrentlyPlaying",
     .name_space = "tnsvesk",
     .value_nice_name = "Currently Playing Sono Brik"},
    AUDIO_OUTPUT,
    AUDIO_DEVICE_ID,
    AUDIO_OUTPUT_ID,
    {.name = "FileName", .type = EVENT_VALUE_STRING, .nice_name = "File Name", .tag = "onvif-data"},
};

/*
 * Performs one step of building a template. If the step fails, performs it a second time, logs the
 * second result, which is normally 0 again, and returns false. The caller discards the template
 * even if the second attempt succeeded.
 */
template <typename Step> bool perform(Step step)
{
    if (step()) {
        return true;
    }
    g_warning("%sInternal error when setting up events: NULL/FALSE from\"%d\"", "",
              static_cast<int>(step()));
    return false;
}

bool add_key(EventTemplate *event_template, const Key &key, const AudioOutputIds &output)
{
    const auto listed_output = static_cast<int>(static_cast<guint32>(output.audio_output) + 1);
    switch (key.initial) {
    case Initial::TEXT:
        return event_template_add_key_value(event_template, key.name, key.text, key.type);
    case Initial::AUDIO_OUTPUT:
        return event_template_add_key_value(event_template, key.name, &listed_output, key.type);
    case Initial::AUDIO_DEVICE_ID:
        return event_template_add_key_value(event_template, key.name, &output.audio_device_id,
                                            key.type);
    case Initial::AUDIO_OUTPUT_ID:
        return event_template_add_key_value(event_template, key.name, &output.audio_output_id,
                                            key.type);
    case Initial::NONE:
        break;
    }
    return event_template_add_key(event_template, key.name, key.type);
}

/* Adds the key with the name space, nice names and tag that its row has. */
bool build_key(EventTemplate *event_template, const Key &key, const AudioOutputIds &output)
{
    if (!perform([&] { return add_key(event_template, key, output); })) {
        return false;
    }
    if (key.name_space && !perform([&] {
            return event_template_set_namespace(event_template, key.name, key.name_space);
        })) {
        return false;
    }
    if ((key.nice_name || key.value_nice_name) && !perform([&] {
            return event_template_set_nice_names(event_template, key.name, key.nice_name,
                                                 key.value_nice_name);
        })) {
        return false;
    }
    return !key.tag ||
           perform([&] { return event_template_add_tag(event_template, key.name, key.tag); });
}

EventTemplate *build_template(std::span<const Key> keys, const AudioOutputIds &output)
{
    g_autoptr(EventTemplate) event_template = nullptr;
    if (!perform([&] { return (event_template = event_template_new()) != nullptr; })) {
        return nullptr;
    }
    for (const Key &key : keys) {
        if (!build_key(event_template, key, output)) {
            return nullptr;
        }
    }
    return g_steal_pointer(&event_template);
}

bool reset_playing_state(Event *event, void *)
{
    const gboolean playing = FALSE;
    return event_value_set(event, "Playing", &playing);
}

} // namespace

EventTemplate *event_templates_new_playing(const AudioOutputIds &output)
{
    g_autoptr(EventTemplate) event_template = build_template(playing_keys, output);
    if (!event_template || !perform([&] {
            return event_template_set_state_key(event_template, "Playing", reset_playing_state,
                                                nullptr);
        })) {
        return nullptr;
    }
    return g_steal_pointer(&event_template);
}

EventTemplate *event_templates_new_currently_playing(const AudioOutputIds &output)
{
    return build_template(currently_playing_keys, output);
}
