#pragma once

/* The topics of a node. */

#include <string>
#include <string_view>
#include <vector>

struct MqttConf;

/* The level between the prefix and the name of a group. No node may have this name. */
inline constexpr std::string_view MQTT_GROUP_LEVEL = "group";

enum MqttTopicKind {
    MQTT_TOPIC_OTHER,
    MQTT_TOPIC_PLAY,
    MQTT_TOPIC_STOP,
    MQTT_TOPIC_PING,
    MQTT_TOPIC_AVAILABILITY,   /* the node's own; see MqttBridge for its use as a mark */
    MQTT_TOPIC_SIREN,          /* commands of Home Assistant */
    MQTT_TOPIC_HOME_ASSISTANT, /* Home Assistant starts or ends */
};

/* Returns true if `text` can be one level of a topic: 1 to 64 bytes of UTF-8 without '/',
 * wildcards and control characters. */
bool mqtt_topics_is_level(std::string_view text);

/* Returns true if `text` consists of at most 33 levels and does not begin with '$', which brokers
 * use. */
bool mqtt_topics_is_prefix(std::string_view text);

/* Returns the node's topic PREFIX/NODE/LEAF. */
std::string mqtt_topics_own(const MqttConf &conf, std::string_view leaf);

/* Returns the topic on which Home Assistant announces that it has started. */
std::string mqtt_topics_home_assistant(const MqttConf &conf);

/* Returns the topics to subscribe to. */
std::vector<std::string> mqtt_topics_list(const MqttConf &conf);

/* Returns what a message on `topic` is. Sets `group` to the group that is addressed, or to an empty
 * text if it is the node alone. */
MqttTopicKind mqtt_topics_find(const MqttConf &conf, std::string_view topic, std::string *group);

/*
 * Returns true if answers may be sent to `topic`. The topics of commands are refused: one answer
 * of each node to a group would reach all nodes, and each of them would answer. Topics of more than
 * 33 levels are refused too, because a broker may disconnect the node for them.
 */
bool mqtt_topics_may_answer(const MqttConf &conf, std::string_view topic);
