#include "mqtt_state.h"

#include <algorithm>

#include "client_clips.h"
#include "mqtt_json.h"

namespace
{

MqttOutput *find_output(std::vector<MqttOutput> *outputs, gint32 device, gint32 device_output)
{
    const auto found = std::ranges::find_if(*outputs, [&](const MqttOutput &output) {
        return output.device == device && output.device_output == device_output;
    });
    return found == outputs->end() ? nullptr : &*found;
}

const MqttClip *find_location(const MqttState &state, const std::string &location)
{
    const auto found = std::ranges::find(state.clips, location, &MqttClip::location);
    return found == state.clips.end() ? nullptr : &*found;
}

/*
 * Returns the clip's name, or a text made from it if it has no name or shares it with other clips:
 * Home Assistant identifies a tone by its name.
 */
std::string make_tone(const std::vector<MqttClip> &clips, const MqttClip &clip)
{
    const std::string number = std::to_string(clip.number);
    if (!clip.name.empty() && std::ranges::count(clips, clip.name, &MqttClip::name) == 1) {
        return clip.name;
    }
    std::string tone = clip.name.empty() ? "Clip " + number : clip.name + " (" + number + ")";
    while (std::ranges::find(clips, tone, &MqttClip::name) != clips.end()) {
        tone += " (" + number + ")";
    }
    return tone;
}

json_t *write_output(const MqttState &state, const MqttOutput &output)
{
    const MqttClip *clip = output.file.empty() ? nullptr : find_location(state, output.file);
    json_t *object = json_object();
    json_object_set_new(object, "output", json_integer(output.output));
    json_object_set_new(object, "device", json_integer(output.device));
    json_object_set_new(object, "deviceOutput", json_integer(output.device_output));
    json_object_set_new(object, "playing", json_boolean(output.playing));
    json_object_set_new(object, "file", mqtt_json_text(output.file));
    json_object_set_new(object, "clip", clip ? json_integer(clip->number) : json_null());
    json_object_set_new(object, "name", clip ? mqtt_json_text(clip->name) : json_null());
    json_object_set_new(object, "since",
                        output.since > 0 ? json_integer(output.since) : json_null());
    return object;
}

std::string describe_file(const MqttState &state, const std::string &file)
{
    if (file.empty()) {
        return "playing"; /* the event with the file has not come */
    }
    const MqttClip *clip = find_location(state, file);
    return clip && !clip->name.empty() ? clip->name : client_clips_relative(file.c_str());
}

/* Returns what is playing, for a display. */
std::string describe(const MqttState &state)
{
    if (!state.is_running) {
        return "The daemon is not running.";
    }
    std::string text;
    for (const MqttOutput &output : state.outputs) {
        if (output.playing) {
            text += (text.empty() ? "" : ", ") + describe_file(state, output.file);
        }
    }
    return text.empty() ? "idle" : text;
}

json_t *write_number(gint64 number)
{
    return number < 0 ? json_null() : json_integer(number);
}

json_t *write_texts(const std::vector<std::string> &texts)
{
    json_t *array = json_array();
    for (const std::string &text : texts) {
        json_array_append_new(array, mqtt_json_text(text));
    }
    return array;
}

/* Returns since when an output plays that was playing before the bridge started, in Unix
 * milliseconds; 0 if it does not play or the daemon does not tell. */
gint64 find_start(const ClientOutput &output, gint64 now)
{
    constexpr guint64 MICROSECONDS = 1000; /* in a millisecond */
    return output.playing && output.file_since > 0 && output.now >= output.file_since
               ? now - static_cast<gint64>((output.now - output.file_since) / MICROSECONDS)
               : 0;
}

} // namespace

void mqtt_state_set_outputs(MqttState *state, const GPtrArray *outputs, gint64 now)
{
    std::vector<MqttOutput> list;
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        const MqttOutput *old = find_output(&state->outputs, output->device, output->device_output);
        const bool is_same =
            old && old->playing == output->playing && old->file == output->file_name;
        const gint64 since = is_same ? old->since : old ? now : find_start(*output, now);
        list.push_back({
            .output = output->output,
            .device = output->device,
            .device_output = output->device_output,
            .playing = output->playing,
            .file = output->file_name,
            .since = since,
        });
    }
    state->outputs = list;
    state->knows_outputs = true;
}

void mqtt_state_apply(MqttState *state, const ClientEvent &event, gint64 now)
{
    MqttOutput *output = find_output(&state->outputs, event.device, event.device_output);
    if (!output) {
        state->outputs.push_back({
            .output = event.output,
            .device = event.device,
            .device_output = event.device_output,
            .playing = false,
            .file = "",
            .since = 0,
        });
        output = &state->outputs.back();
    }
    if (event.is_state) {
        output->playing = event.playing;
    } else {
        output->file = event.file_name;
    }
    output->since = now;
}

void mqtt_state_set_clips(MqttState *state, const GPtrArray *clips)
{
    std::vector<MqttClip> list;
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        MqttClip copy = {
            .number = clip->number,
            .name = clip->name,
            .location = clip->location,
            .tone = "",
            .media_types = {},
            .size_kib = clip->size_kib,
            .duration_ms = clip->duration_ms,
        };
        for (char **type = clip->media_types; type && *type; type++) {
            copy.media_types.emplace_back(*type);
        }
        list.push_back(copy);
    }
    for (MqttClip &clip : list) {
        clip.tone = make_tone(list, clip);
    }
    state->clips = list;
    state->knows_clips = true;
}

bool mqtt_state_is_playing(const MqttState &state)
{
    return std::ranges::any_of(state.outputs, &MqttOutput::playing);
}

const MqttClip *mqtt_state_find_tone(const MqttState &state, const std::string &tone)
{
    const auto found = std::ranges::find_if(
        state.clips, [&tone](const MqttClip &clip) { return tone.empty() || clip.tone == tone; });
    return found == state.clips.end() ? nullptr : &*found;
}

gint64 mqtt_state_count_repeats(const MqttState &state, const std::string &location,
                                gint64 duration)
{
    const MqttClip *clip = find_location(state, location);
    return clip && clip->duration_ms > 0 ? duration / clip->duration_ms : -1;
}

std::string mqtt_state_write(const MqttState &state)
{
    json_t *outputs = json_array();
    for (const MqttOutput &output : state.outputs) {
        json_array_append_new(outputs, write_output(state, output));
    }
    json_t *object = json_object();
    json_object_set_new(object, "daemon", json_string(state.is_running ? "running" : "away"));
    json_object_set_new(object, "playing", json_boolean(mqtt_state_is_playing(state)));
    json_object_set_new(object, "text", mqtt_json_text(describe(state)));
    json_object_set_new(object, "outputs", outputs);
    return mqtt_json_write(object);
}

std::string mqtt_state_write_clips(const MqttState &state)
{
    json_t *clips = json_array();
    for (const MqttClip &clip : state.clips) {
        json_t *object = json_object();
        json_object_set_new(object, "clip", json_integer(clip.number));
        json_object_set_new(object, "name", mqtt_json_text(clip.name));
        json_object_set_new(object, "file", mqtt_json_text(clip.location));
        json_object_set_new(object, "durationMs", write_number(clip.duration_ms));
        json_object_set_new(object, "sizeKib", write_number(clip.size_kib));
        json_object_set_new(object, "mediaTypes", write_texts(clip.media_types));
        json_array_append_new(clips, object);
    }
    json_t *object = json_object();
    json_object_set_new(object, "clips", clips);
    return mqtt_json_write(object);
}

std::string mqtt_state_write_info(const MqttState &state, const MqttConf &conf,
                                  const std::string &library, const MqttClock &clock)
{
    json_t *outputs = json_array();
    for (const MqttOutput &output : state.outputs) {
        json_t *object = json_object();
        json_object_set_new(object, "output", json_integer(output.output));
        json_object_set_new(object, "device", json_integer(output.device));
        json_object_set_new(object, "deviceOutput", json_integer(output.device_output));
        json_array_append_new(outputs, object);
    }
    json_t *versions = json_object();
    json_object_set_new(versions, "sonobrik-mqtt", json_string(SONOBRIK_VERSION));
    json_object_set_new(versions, "libmosquitto", json_string(library.c_str()));
    json_t *object = json_object();
    json_object_set_new(object, "node", json_string(conf.name.c_str()));
    json_object_set_new(object, "groups", write_texts(conf.groups));
    json_object_set_new(object, "versions", versions);
    json_object_set_new(object, "outputs", outputs);
    json_object_set_new(object, "leadMs", json_integer(conf.lead));
    json_object_set_new(object, "graceMs", json_integer(conf.grace));
    json_object_set_new(object, "maxPayload", json_integer(conf.max_payload));
    json_object_set_new(object, "clock", mqtt_clock_describe(clock));
    return mqtt_json_write(object);
}
