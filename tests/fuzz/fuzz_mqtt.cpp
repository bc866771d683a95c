/* Fuzzes the MQTT bridge: payloads of commands, topics, the configuration and the store. */

#include <glib.h>
#include <string>

#include "autoptr.h"
#include "fuzz_input.h"
#include "mqtt_answer.h"
#include "mqtt_conf.h"
#include "mqtt_store.h"
#include "mqtt_topics.h"

static MqttConf make_conf()
{
    MqttConf conf;
    std::string why;
    g_assert(mqtt_conf_read(&conf, "[broker]\nhost=a\n[node]\nname=n\ngroups=g\n", "n", &why));
    return conf;
}

/* The answer to anything must be JSON. */
static void check_answer(const MqttJob &job, const std::string &text)
{
    static const MqttConf conf = make_conf();
    const std::string answer = mqtt_answer_write(conf, job, MQTT_REFUSED, text, 0, {});
    g_autoptr(json_t) read = json_loads(answer.c_str(), 0, nullptr);
    g_assert(json_is_object(read));
}

static void check_command(MqttTopicKind kind, const std::string &text)
{
    MqttJob job;
    std::string why;
    job.command.kind = kind;
    const bool is_read = kind == MQTT_TOPIC_SIREN
                             ? mqtt_command_read_siren(&job.command, text, &why)
                             : mqtt_command_read(&job.command, text, &why);
    const MqttCommand &command = job.command;
    g_assert(is_read == why.empty());
    check_answer(job, why);
    if (!is_read) {
        return;
    }
    g_assert(command.volume == CLIENT_NOT_GIVEN ||
             (command.volume >= 0 && command.volume <= CLIENT_MAX_VOLUME));
    g_assert(command.repeat == CLIENT_NOT_GIVEN || command.repeat >= -1);
    g_assert(command.output == CLIENT_NOT_GIVEN ||
             (command.output >= 0 && command.output <= CLIENT_MAX_OUTPUT));
    g_assert(command.id.size() <= MQTT_MAX_ID);
    std::string path;
    if (mqtt_command_find_location(command.location, false, &path, &why)) {
        g_assert(path.starts_with("/etc/audioclips/") && path.find("/../") == path.npos &&
                 !path.ends_with("/.."));
    }
}

static void check_conf(const std::string &text)
{
    MqttConf conf;
    std::string why;
    const bool is_read = mqtt_conf_read(&conf, text, "n", &why);
    g_assert(is_read == why.empty());
    if (!is_read) {
        return;
    }
    g_assert(conf.tls || conf.allow_plaintext || mqtt_conf_is_local(conf.host));
    for (const std::string &topic : mqtt_topics_list(conf)) {
        std::string group;
        g_assert(mqtt_topics_find(conf, topic, &group) != MQTT_TOPIC_OTHER);
        g_assert(topic.find_first_of("+#") == topic.npos);
    }
}

/* What can be read stays the same when it is written. */
static void check_store(const std::string &text)
{
    MqttStore store;
    if (!mqtt_store_read(&store, text)) {
        return;
    }
    const std::string written = mqtt_store_write(store);
    MqttStore again;
    g_assert(mqtt_store_read(&again, written));
    g_assert(mqtt_store_write(again) == written);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_input_setup("mqtt");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    for (const MqttTopicKind kind : {MQTT_TOPIC_PLAY, MQTT_TOPIC_STOP, MQTT_TOPIC_SIREN}) {
        check_command(kind, text);
    }
    static const MqttConf conf = make_conf();
    std::string group;
    const MqttTopicKind kind = mqtt_topics_find(conf, text, &group);
    g_assert(kind == MQTT_TOPIC_OTHER || !mqtt_topics_may_answer(conf, text) ||
             kind == MQTT_TOPIC_AVAILABILITY || kind == MQTT_TOPIC_HOME_ASSISTANT);
    check_conf(text);
    check_store(text);
    return 0;
}
