#include "mqtt_discovery.h"

#include <algorithm>

#include "mqtt_json.h"
#include "mqtt_topics.h"

namespace
{

bool is_id_character(char c)
{
    return g_ascii_isalnum(c) || c == '_' || c == '-';
}

/* Returns an identifier of letters, digits, '_' and '-' that only this node has. */
std::string make_id(const MqttConf &conf)
{
    const std::string name = conf.prefix + "/" + conf.name;
    std::string id = conf.prefix + "_" + conf.name;
    std::ranges::replace_if(
        id, [](char c) { return !is_id_character(c); }, '_');
    if (conf.prefix.find_first_of("/_") == std::string::npos &&
        std::ranges::all_of(conf.name, is_id_character)) {
        return id;
    }
    /* Otherwise, names such as "a b" and "a_b" would have the same identifier. */
    g_autofree char *hash = g_compute_checksum_for_string(G_CHECKSUM_SHA256, name.c_str(), -1);
    return id + "_" + std::string(hash).substr(0, 8);
}

json_t *make_component(const char *platform, const std::string &id, const char *key,
                       const char *name)
{
    json_t *component = json_object();
    json_object_set_new(component, "platform", json_string(platform));
    json_object_set_new(component, "unique_id", json_string((id + "_" + key).c_str()));
    json_object_set_new(component, "name", json_string(name));
    return component;
}

void set_topic(json_t *component, const char *key, const MqttConf &conf, const char *leaf)
{
    json_object_set_new(component, key, json_string(mqtt_topics_own(conf, leaf).c_str()));
}

json_t *make_siren(const MqttConf &conf, const MqttState &state, const std::string &id)
{
    json_t *siren = make_component("siren", id, "siren", "Clips");
    json_t *tones = json_array();
    for (const MqttClip &clip : state.clips) {
        json_array_append_new(tones, mqtt_json_text(clip.tone));
    }
    set_topic(siren, "command_topic", conf, "siren/set");
    set_topic(siren, "state_topic", conf, "siren/state");
    set_topic(siren, "availability_topic", conf, "availability");
    json_object_set_new(siren, "available_tones", tones);
    json_object_set_new(siren, "support_volume_set", json_true());
    json_object_set_new(siren, "support_duration", json_true());
    return siren;
}

json_t *make_sensor(const MqttConf &conf, const std::string &id)
{
    json_t *sensor = make_component("sensor", id, "playing", "Playing");
    set_topic(sensor, "state_topic", conf, "state");
    set_topic(sensor, "availability_topic", conf, "availability");
    set_topic(sensor, "json_attributes_topic", conf, "state");
    /* Home Assistant refuses states over 255 characters. */
    json_object_set_new(sensor, "value_template", json_string("{{ value_json.text[:255] }}"));
    return sensor;
}

/* The sensor has no availability_topic: while the node is offline, it shows "off" instead of
 * becoming unavailable itself. */
json_t *make_availability(const MqttConf &conf, const std::string &id)
{
    json_t *sensor = make_component("binary_sensor", id, "online", "Online");
    set_topic(sensor, "state_topic", conf, "availability");
    json_object_set_new(sensor, "payload_on", json_string("online"));
    json_object_set_new(sensor, "payload_off", json_string("offline"));
    json_object_set_new(sensor, "device_class", json_string("connectivity"));
    return sensor;
}

json_t *make_stop(const MqttConf &conf, const std::string &id)
{
    json_t *button = make_component("button", id, "stop", "Stop");
    set_topic(button, "command_topic", conf, "stop");
    set_topic(button, "availability_topic", conf, "availability");
    json_object_set_new(button, "payload_press", json_string("{}"));
    return button;
}

} // namespace

std::string mqtt_discovery_topic(const MqttConf &conf)
{
    return conf.discovery_prefix + "/device/" + make_id(conf) + "/config";
}

std::string mqtt_discovery_write(const MqttConf &conf, const MqttState &state)
{
    const std::string id = make_id(conf);
    json_t *device = json_object();
    json_object_set_new(device, "identifiers", json_pack("[s]", id.c_str()));
    json_object_set_new(device, "name", mqtt_json_text(conf.device_name));
    json_object_set_new(device, "model", json_string("sonobrik"));
    json_object_set_new(device, "sw_version", json_string(SONOBRIK_VERSION));
    json_t *origin = json_object();
    json_object_set_new(origin, "name", json_string("sonobrik-mqtt"));
    json_object_set_new(origin, "sw_version", json_string(SONOBRIK_VERSION));
    json_t *components = json_object();
    json_object_set_new(components, "siren", make_siren(conf, state, id));
    json_object_set_new(components, "playing", make_sensor(conf, id));
    json_object_set_new(components, "online", make_availability(conf, id));
    json_object_set_new(components, "stop", make_stop(conf, id));
    json_t *message = json_object();
    json_object_set_new(message, "device", device);
    json_object_set_new(message, "origin", origin);
    json_object_set_new(message, "components", components);
    json_object_set_new(message, "qos", json_integer(1));
    return mqtt_json_write(message);
}

std::string mqtt_discovery_write_siren(const MqttState &state)
{
    json_t *object = json_object();
    const auto playing = std::ranges::find_if(state.outputs, &MqttOutput::playing);
    const bool is_on = playing != state.outputs.end();
    json_object_set_new(object, "state", json_string(is_on ? "ON" : "OFF"));
    const auto clip = is_on ? std::ranges::find(state.clips, playing->file, &MqttClip::location)
                            : state.clips.end();
    if (clip != state.clips.end()) {
        json_object_set_new(object, "tone", mqtt_json_text(clip->tone));
    }
    return mqtt_json_write(object);
}
