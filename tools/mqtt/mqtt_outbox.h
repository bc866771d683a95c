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

/*
 * Handles the end of a connection. After several in a row that were not stable, while an answer on
 * a response topic was unconfirmed, the unconfirmed answers go to the node's own topic: the broker
 * may end the connection because of that answer, and libmosquitto repeats it at each connection.
 */
void mqtt_outbox_on_ended(MqttBridge *bridge, bool was_stable);

/* Sends the answers that waited for a connection. */
void mqtt_outbox_send_kept(MqttBridge *bridge);
