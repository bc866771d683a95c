#include "mqtt_command.h"

#include <cmath>

#include "autoptr.h"
#include "client_clips.h"
#include "mqtt_json.h"

namespace
{

/* The daemon's limit, and the largest repeat that it can read. */
constexpr size_t MAX_LOCATION = 4095;
constexpr gint64 MAX_REPEAT = G_MAXINT32;

struct Text {
    const char *key;
    std::string MqttCommand::*place;
    size_t max;
};

constexpr Text TEXTS[] = {
    {"name", &MqttCommand::clip_name, CLIENT_MAX_NAME},
    {"location", &MqttCommand::location, MAX_LOCATION},
};

struct Number {
    const char *key;
    gint64 MqttCommand::*place;
    gint64 min;
    gint64 max;
};

constexpr Number NUMBERS[] = {
    {"volume", &MqttCommand::volume, 0, CLIENT_MAX_VOLUME},
    {"repeat", &MqttCommand::repeat, -1, MAX_REPEAT},
    {"output", &MqttCommand::output, 0, CLIENT_MAX_OUTPUT},
    {"at", &MqttCommand::at, 0, MQTT_MAX_AT},
};

bool fail(std::string *why, const std::string &text)
{
    *why = text;
    return false;
}

bool read_id(MqttCommand *command, const json_t *value, std::string *why)
{
    gint64 number = 0;
    if (mqtt_json_read_integer(value, &number)) {
        command->id = std::to_string(number);
        command->id_is_number = true;
        return true;
    }
    const char *text = json_string_value(value);
    if (!text || *text == '\0' || json_string_length(value) > MQTT_MAX_ID) {
        return fail(why, "'id' is not an integer or a text of 1 to " + std::to_string(MQTT_MAX_ID) +
                             " bytes.");
    }
    command->id = text;
    return true;
}

bool read_clip(MqttCommand *command, const json_t *value, std::string *why)
{
    gint64 number = 0;
    if (mqtt_json_read_integer(value, &number)) {
        command->clip = std::to_string(number);
        return true;
    }
    const char *text = json_string_value(value);
    if (!text || *text == '\0' || json_string_length(value) > CLIENT_MAX_NAME) {
        return fail(why, "'clip' is not the number or the name of a clip.");
    }
    command->clip = text;
    return true;
}

bool read_text(MqttCommand *command, const Text &text, const json_t *value, std::string *why)
{
    const char *content = json_string_value(value);
    if (!content || *content == '\0' || json_string_length(value) > text.max) {
        return fail(why, std::string("'") + text.key + "' is not a text of 1 to " +
                             std::to_string(text.max) + " bytes.");
    }
    command->*text.place = content;
    return true;
}

bool read_number(MqttCommand *command, const Number &number, const json_t *value, std::string *why)
{
    gint64 read = 0;
    if (!mqtt_json_read_integer(value, &read) || read < number.min || read > number.max) {
        return fail(why, std::string("'") + number.key + "' is not an integer from " +
                             std::to_string(number.min) + " to " + std::to_string(number.max) +
                             ".");
    }
    command->*number.place = read;
    return true;
}

bool read_play_key(MqttCommand *command, const char *key, const json_t *value, std::string *why)
{
    if (g_str_equal(key, "clip")) {
        return read_clip(command, value, why);
    }
    for (const Text &text : TEXTS) {
        if (g_str_equal(key, text.key)) {
            return read_text(command, text, value, why);
        }
    }
    for (const Number &number : NUMBERS) {
        if (g_str_equal(key, number.key)) {
            return read_number(command, number, value, why);
        }
    }
    return fail(why, std::string("The key '") + key + "' is unknown.");
}

bool read_key(MqttCommand *command, const char *key, const json_t *value, std::string *why)
{
    if (g_str_equal(key, "id")) {
        return true; /* it was read first */
    }
    if (command->kind == MQTT_TOPIC_PLAY) {
        return read_play_key(command, key, value, why);
    }
    return fail(why, std::string("The key '") + key + "' is unknown.");
}

bool is_inside_clip_folder(const std::string &path)
{
    const std::string folder = std::string(CLIENT_CLIP_FOLDER) + "/";
    if (!path.starts_with(folder)) {
        return false;
    }
    g_auto(GStrv) levels = g_strsplit(path.c_str(), "/", -1);
    return !g_strv_contains(levels, "..");
}

} // namespace

bool mqtt_command_read(MqttCommand *command, std::string_view payload, std::string *why)
{
    /* A stop and a ping need no payload. */
    if (payload.empty() && command->kind != MQTT_TOPIC_PLAY) {
        return true;
    }
    json_error_t error = {};
    g_autoptr(json_t) object = json_loadb(payload.data(), payload.size(),
                                          JSON_REJECT_DUPLICATES | JSON_DECODE_ANY, &error);
    if (!json_is_object(object)) {
        return fail(why, object ? "The payload is not a JSON object."
                                : std::string("The payload is not JSON: ") + error.text + ".");
    }
    /* First, so that the answer to what is wrong in the rest contains it. */
    const json_t *id = json_object_get(object, "id");
    if (id && !read_id(command, id, why)) {
        return false;
    }
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(object, key, value)
    {
        if (!read_key(command, key, value, why)) {
            return false;
        }
    }
    const int named =
        !command->clip.empty() + !command->clip_name.empty() + !command->location.empty();
    if (command->kind == MQTT_TOPIC_PLAY && named != 1) {
        return fail(why, "Exactly one of 'clip', 'name' and 'location' is needed.");
    }
    return true;
}

bool mqtt_command_read_siren(MqttCommand *command, std::string_view payload, std::string *why)
{
    command->is_siren = true;
    json_error_t error = {};
    g_autoptr(json_t) object = json_loadb(payload.data(), payload.size(), 0, &error);
    const std::string state = mqtt_json_get_text(object, "state");
    if (state == "OFF") {
        command->kind = MQTT_TOPIC_STOP;
        return true;
    }
    if (state != "ON") {
        return fail(why, "The 'state' of the siren is neither ON nor OFF.");
    }
    command->kind = MQTT_TOPIC_PLAY;
    command->tone = mqtt_json_get_text(object, "tone");
    const json_t *level = json_object_get(object, "volume_level");
    if (level) {
        const double volume = json_number_value(level);
        if (!json_is_number(level) || volume < 0 || volume > 1) {
            return fail(why, "'volume_level' is not a number from 0 to 1.");
        }
        command->volume = std::lround(volume * 100);
    }
    const json_t *duration = json_object_get(object, "duration");
    if (duration) {
        gint64 seconds = 0;
        if (!mqtt_json_read_integer(duration, &seconds) || seconds < 1 ||
            seconds > MQTT_MAX_DURATION) {
            return fail(why, "'duration' is not an integer from 1 to " +
                                 std::to_string(MQTT_MAX_DURATION) + ".");
        }
        command->duration = seconds;
    }
    return true;
}

bool mqtt_command_find_location(const std::string &location, bool is_any_allowed, std::string *path,
                                std::string *why)
{
    *path = location.starts_with('/') ? location : std::string(CLIENT_CLIP_FOLDER) + "/" + location;
    if (!is_any_allowed && !is_inside_clip_folder(*path)) {
        return fail(why, "The location is not in " + std::string(CLIENT_CLIP_FOLDER) + ".");
    }
    return true;
}
