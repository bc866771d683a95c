#pragma once

/* Sends the answers to commands, and keeps them while there is no connection to the broker. */

#include <string>

#include "mqtt_answer.h"

struct MqttBridge;

/* Answers the command of the job: on its response topic, or on the node's own topic. */
void mqtt_outbox_answer(MqttBridge *bridge, const MqttJob &job, MqttStatus status,
                        const std::string &text);

/* Sends an answer that the broker refused on its response topic to the node's own topic. */
void mqtt_outbox_on_published(MqttBridge *bridge, int message, bool is_refused);

/* Sends the answers that waited for a connection. */
void mqtt_outbox_send_kept(MqttBridge *bridge);
