#pragma once

/* The messages with which Home Assistant finds the node. */

#include <string>

#include "mqtt_conf.h"
#include "mqtt_state.h"

/* Returns the topic of the node's discovery message. An empty retained message there makes Home
 * Assistant forget the node. */
std::string mqtt_discovery_topic(const MqttConf &conf);

/* Returns the discovery message: a siren with the clips as tones, a sensor for what is playing, one
 * for whether the node is online, and a button that stops. */
std::string mqtt_discovery_write(const MqttConf &conf, const MqttState &state);

/* Returns the state of the siren, a retained message on the node's topic "siren/state". */
std::string mqtt_discovery_write_siren(const MqttState &state);
