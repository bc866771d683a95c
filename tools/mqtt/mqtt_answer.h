#pragma once

/* The answers to commands. */

#include <string>

#include "mqtt_clock.h"
#include "mqtt_conf.h"
#include "mqtt_store.h"

/* What became of a command: the member "status" of the answer. */
enum MqttStatus {
    MQTT_PLAYING,   /* the daemon has started the clip */
    MQTT_SCHEDULED, /* another answer follows at its time */
    MQTT_STOPPED,
    MQTT_PONG,
    MQTT_REFUSED,   /* not understood, or not allowed */
    MQTT_FAILED,    /* the daemon refused it, or cannot be reached */
    MQTT_LATE,      /* it came after its time */
    MQTT_EXPIRED,   /* its message expired */
    MQTT_DUPLICATE, /* a command with this identifier was received before */
    MQTT_CANCELLED, /* a stop came before its time */
};

/*
 * Returns the JSON of an answer. `text` is the daemon's text, or a sentence. `now` is Unix time in
 * milliseconds.
 */
std::string mqtt_answer_write(const MqttConf &conf, const MqttJob &job, MqttStatus status,
                              const std::string &text, gint64 now, const MqttClock &clock);
