#include "mqtt_topics.h"

#include <algorithm>
#include <glib.h>

#include "mqtt_conf.h"

namespace
{

constexpr size_t MAX_LEVEL = 64;

/* Brokers limit the levels of a topic, and may disconnect a client that publishes beyond that:
 * Mosquitto does so above 200 slashes. */
constexpr auto MAX_SLASHES = 32;

struct Leaf {
    std::string_view name;
    MqttTopicKind kind;
};

constexpr Leaf COMMANDS[] = {
    {"play", MQTT_TOPIC_PLAY},
    {"stop", MQTT_TOPIC_STOP},
    {"ping", MQTT_TOPIC_PING},
};

MqttTopicKind find_command(std::string_view name)
{
    const auto *leaf = std::ranges::find(COMMANDS, name, &Leaf::name);
    return leaf == std::end(COMMANDS) ? MQTT_TOPIC_OTHER : leaf->kind;
}

std::string make_group(const MqttConf &conf, std::string_view group, std::string_view leaf)
{
    std::string topic = conf.prefix + "/";
    topic += MQTT_GROUP_LEVEL;
    return (topic += "/") += std::string(group) + "/" + std::string(leaf);
}

/* Removes `prefix` and a slash from the beginning of `topic`. Returns false if it is not there. */
bool skip(std::string_view *topic, std::string_view prefix)
{
    if (!topic->starts_with(prefix) || topic->size() == prefix.size() ||
        (*topic)[prefix.size()] != '/') {
        return false;
    }
    topic->remove_prefix(prefix.size() + 1);
    return true;
}

bool has_too_many_levels(std::string_view topic)
{
    return std::ranges::count(topic, '/') > MAX_SLASHES;
}

} // namespace

bool mqtt_topics_is_level(std::string_view text)
{
    return !text.empty() && text.size() <= MAX_LEVEL &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) &&
           std::ranges::none_of(text, [](char c) {
               return c == '/' || c == '+' || c == '#' || g_ascii_iscntrl(c) || c == '\0';
           });
}

bool mqtt_topics_is_prefix(std::string_view text)
{
    if (text.starts_with('$') || has_too_many_levels(text)) {
        return false;
    }
    while (true) {
        const size_t slash = text.find('/');
        if (!mqtt_topics_is_level(text.substr(0, slash))) {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        text.remove_prefix(slash + 1);
    }
}

std::string mqtt_topics_own(const MqttConf &conf, std::string_view leaf)
{
    return conf.prefix + "/" + conf.name + "/" + std::string(leaf);
}

std::string mqtt_topics_home_assistant(const MqttConf &conf)
{
    return conf.discovery_prefix + "/status";
}

std::vector<std::string> mqtt_topics_list(const MqttConf &conf)
{
    std::vector<std::string> topics;
    for (const Leaf &leaf : COMMANDS) {
        topics.push_back(mqtt_topics_own(conf, leaf.name));
        for (const std::string &group : conf.groups) {
            topics.push_back(make_group(conf, group, leaf.name));
        }
    }
    topics.push_back(mqtt_topics_own(conf, "availability"));
    if (conf.discovery) {
        topics.push_back(mqtt_topics_own(conf, "siren/set"));
        topics.push_back(mqtt_topics_home_assistant(conf));
    }
    return topics;
}

MqttTopicKind mqtt_topics_find(const MqttConf &conf, std::string_view topic, std::string *group)
{
    group->clear();
    if (conf.discovery && topic == mqtt_topics_home_assistant(conf)) {
        return MQTT_TOPIC_HOME_ASSISTANT;
    }
    if (!skip(&topic, conf.prefix)) {
        return MQTT_TOPIC_OTHER;
    }
    if (skip(&topic, conf.name)) {
        if (topic == "availability") {
            return MQTT_TOPIC_AVAILABILITY;
        }
        return conf.discovery && topic == "siren/set" ? MQTT_TOPIC_SIREN : find_command(topic);
    }
    if (!skip(&topic, MQTT_GROUP_LEVEL)) {
        return MQTT_TOPIC_OTHER;
    }
    const auto found = std::ranges::find_if(conf.groups, [topic](const std::string &candidate) {
        std::string_view rest = topic;
        return skip(&rest, candidate) && find_command(rest) != MQTT_TOPIC_OTHER;
    });
    if (found == conf.groups.end() || !skip(&topic, *found)) {
        return MQTT_TOPIC_OTHER;
    }
    *group = *found;
    return find_command(topic);
}

bool mqtt_topics_may_answer(const MqttConf &conf, std::string_view topic)
{
    if (topic.empty() || topic.find_first_of("+#") != std::string_view::npos ||
        has_too_many_levels(topic)) {
        return false;
    }
    if (!skip(&topic, conf.prefix)) {
        return true;
    }
    std::string_view group = topic;
    const size_t slash = topic.rfind('/');
    const std::string_view leaf = slash == std::string_view::npos ? topic : topic.substr(slash + 1);
    return !skip(&group, MQTT_GROUP_LEVEL) && find_command(leaf) == MQTT_TOPIC_OTHER &&
           leaf != "set";
}
