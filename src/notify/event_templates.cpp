#include "event_templates.h"

#include <span>

namespace
{

/* Where the initial value of a key comes from. */
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
    Initial initial;
    const char *text; /* of Initial::TEXT */
    const char *name_space;
    const char *nice_name;
    const char *value_nice_name;
    const char *tag;
};

constexpr Key playing_keys[] = {
    {"topic0", EVENT_VALUE_STRING, Initial::TEXT, "SonoBrik", "tnsvesk", nullptr, "Sono Brik",
     nullptr},
    {"topic1", EVENT_VALUE_STRING, Initial::TEXT, "Playing", "tnsvesk", nullptr, "Playing",
     nullptr},
    {"AudioOutput", EVENT_VALUE_INT, Initial::AUDIO_OUTPUT, nullptr, nullptr, "Audio Output",
     nullptr, "onvif-source"},
    {"AudioDeviceId", EVENT_VALUE_INT, Initial::AUDIO_DEVICE_ID, nullptr, nullptr,
     "Audio Device Id", nullptr, nullptr},
    {"AudioOutputId", EVENT_VALUE_INT, Initial::AUDIO_OUTPUT_ID, nullptr, nullptr,
     "Audio Output Id", nullptr, nullptr},
    {"Playing", EVENT_VALUE_BOOL, Initial::NONE, nullptr, nullptr, "Playing Status", nullptr,
     "onvif-data"},
};

constexpr Key currently_playing_keys[] = {
    {"topic0", EVENT_VALUE_STRING, Initial::TEXT, "SonoBrik", "tnsvesk", nullptr, "Sono Brik",
     nullptr},
    {"topic1", EVENT_VALUE_STRING, Initial::TEXT, "CurrentlyPlaying", "tnsvesk", nullptr,
     "Currently Playing Sono Brik", nullptr},
    {"AudioOutput", EVENT_VALUE_INT, Initial::AUDIO_OUTPUT, nullptr, nullptr, "Audio Output",
     nullptr, "onvif-source"},
    {"AudioDeviceId", EVENT_VALUE_INT, Initial::AUDIO_DEVICE_ID, nullptr, nullptr,
     "Audio Device Id", nullptr, nullptr},
    {"AudioOutputId", EVENT_VALUE_INT, Initial::AUDIO_OUTPUT_ID, nullptr, nullptr,
     "Audio Output Id", nullptr, nullptr},
    {"FileName", EVENT_VALUE_STRING, Initial::NONE, nullptr, nullptr, "File Name", nullptr,
     "onvif-data"},
};

/* The output that a template is built for. */
struct Output {
    gint32 audio_output;
    gint32 audio_device_id;
    gint32 audio_output_id;
};

/*
 * Performs one step of building a template. A step that fails is performed once more, and what it
 * yields then is logged; a template with a failed step is given up either way. The second try is
 * meant.
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

bool add_key(EventTemplate *event_template, const Key &key, const Output &output)
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

/* Adds the key with its name space, its names for people and its tag, as far as it has them. */
bool build_key(EventTemplate *event_template, const Key &key, const Output &output)
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

EventTemplate *build_template(std::span<const Key> keys, const Output &output)
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

EventTemplate *event_templates_new_playing(gint32 audio_output, gint32 audio_device_id,
                                           gint32 audio_output_id)
{
    g_autoptr(EventTemplate) event_template =
        build_template(playing_keys, {audio_output, audio_device_id, audio_output_id});
    if (!event_template || !perform([&] {
            return event_template_set_state_key(event_template, "Playing", reset_playing_state,
                                                nullptr);
        })) {
        return nullptr;
    }
    return g_steal_pointer(&event_template);
}

EventTemplate *event_templates_new_currently_playing(gint32 audio_output, gint32 audio_device_id,
                                                     gint32 audio_output_id)
{
    return build_template(currently_playing_keys, {audio_output, audio_device_id, audio_output_id});
}
