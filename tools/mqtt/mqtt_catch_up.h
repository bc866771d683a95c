#pragma once

/*
 * Tells how old a command may be. The broker keeps commands while the node is away or the bridge is
 * held up, for example because the machine is suspended, and does not tell how old they are. It
 * sends them in order. So after each interruption the node publishes its "online" with a new mark:
 * what comes before the broker sends that back may be old.
 */

#include "mqtt_client.h"

struct MqttBridge;

/* Publishes "online" on a new connection, after the subscriptions. */
void mqtt_catch_up_on_connected(MqttBridge *bridge, bool has_session);

/* Notes that the event loop runs. Call it often, and before each received message: a longer pause
 * between two calls means that the bridge was held up. */
void mqtt_catch_up_note_turn(MqttBridge *bridge);

/* Notes that a command has arrived. */
void mqtt_catch_up_note_command(MqttBridge *bridge);

/* Handles a message on the node's own topic "availability". Publishes "online" again if another
 * client has published "offline". */
void mqtt_catch_up_on_availability(MqttBridge *bridge, const MqttMessage &message);

/* Returns true while the broker may be sending messages that it kept. */
bool mqtt_catch_up_is_active(const MqttBridge *bridge);
