#include "mqtt_answer.h"

#include "mqtt_json.h"

namespace
{

struct Status {
    const char *name;
    MqttStatus status;
    bool ok;
};

constexpr Status STATUSES[] = {
    {"playing", MQTT_PLAYING, true},      {"scheduled", MQTT_SCHEDULED, true},
    {"stopped", MQTT_STOPPED, true},      {"pong", MQTT_PONG, true},
    {"refused", MQTT_REFUSED, false},     {"failed", MQTT_FAILED, false},
    {"late", MQTT_LATE, false},           {"expired", MQTT_EXPIRED, false},
    {"duplicate", MQTT_DUPLICATE, false}, {"cancelled", MQTT_CANCELLED, false},
};

const char *get_command(MqttTopicKind kind)
{
    switch (kind) {
    case MQTT_TOPIC_PLAY:
        return "play";
    case MQTT_TOPIC_STOP:
        return "stop";
    default:
        return "ping";
    }
}

json_t *write_id(const MqttCommand &command)
{
    if (command.id.empty()) {
        return json_null();
    }
    return command.id_is_number ? json_integer(g_ascii_strtoll(command.id.c_str(), nullptr, 10))
                                : json_string(command.id.c_str());
}

} // namespace

std::string mqtt_answer_write(const MqttConf &conf, const MqttJob &job, MqttStatus status,
                              const std::string &text, gint64 now, const MqttClock &clock)
{
    const MqttCommand &command = job.command;
    json_t *answer = json_object();
    json_object_set_new(answer, "node", json_string(conf.name.c_str()));
    json_object_set_new(answer, "command", json_string(get_command(command.kind)));
    if (!command.group.empty()) {
        json_object_set_new(answer, "group", json_string(command.group.c_str()));
    }
    json_object_set_new(answer, "id", write_id(command));
    for (const Status &known : STATUSES) {
        if (known.status == status) {
            json_object_set_new(answer, "ok", json_boolean(known.ok));
            json_object_set_new(answer, "status", json_string(known.name));
        }
    }
    json_object_set_new(answer, "text", mqtt_json_text(text));
    json_object_set_new(answer, "time", json_integer(now));
    json_object_set_new(answer, "clock", mqtt_clock_describe(clock));
    if (!job.location.empty()) {
        json_object_set_new(answer, "file", mqtt_json_text(job.location));
    }
    if (job.clip >= 0) {
        json_object_set_new(answer, "clip", json_integer(job.clip));
    }
    if (command.at != CLIENT_NOT_GIVEN) {
        json_object_set_new(answer, "at", json_integer(command.at));
    }
    if (status == MQTT_PLAYING) {
        /* What the node expects, not what it measured. */
        json_object_set_new(answer, "soundsAt",
                            json_integer(job.called_at + (job.call_lead + 500) / 1000));
    }
    return mqtt_json_write(answer);
}
