#pragma once

/* The pauses between two attempts to reach the broker. */

#include <glib.h>

/* In milliseconds. */
constexpr gint64 MQTT_PAUSE_FIRST = 1000;
constexpr gint64 MQTT_PAUSE_MAX = 60'000;

struct MqttPause {
    gint64 limit = MQTT_PAUSE_FIRST; /* of the next pause */
};

/*
 * Returns the next pause, between a half of the limit and the limit, and doubles the limit up to
 * MQTT_PAUSE_MAX. `chance` is a random number from 0 to 1. It spreads the attempts of many nodes
 * after a restart of their broker.
 */
gint64 mqtt_pause_next(MqttPause *pause, double chance);

/* Makes the next pause as short as the first one. */
void mqtt_pause_reset(MqttPause *pause);
