#pragma once

/*
 * When to call the daemon so that the first sample plays at a given time.
 *
 * The time from the call to the first sample has two parts. The first is the call itself, in which
 * the daemon opens the file and builds its pipeline. The node can measure it. The second, from the
 * daemon's reply to the first sample, contains the pipeline's latency of 100 ms. The node cannot
 * measure it, so it is a part of the configured time, which was measured for a call of
 * MQTT_LEAD_CALL.
 */

#include <array>
#include <glib.h>

/* The duration of the call in the measurement of the default lead, in microseconds. */
constexpr gint64 MQTT_LEAD_CALL = 30'000;

/* How many of the last calls count. */
constexpr size_t MQTT_LEAD_CALLS = 9;

struct MqttLead {
    gint64 configured = 0; /* microseconds, for a call of MQTT_LEAD_CALL */
    std::array<gint64, MQTT_LEAD_CALLS> calls = {};
    size_t count = 0; /* of all calls so far */
};

/* Adds the duration of a call that started a clip, in microseconds. */
void mqtt_lead_add(MqttLead *lead, gint64 duration);

/*
 * Returns the time from the call to the first sample, in microseconds: the configured one,
 * corrected by the difference between the median of the last calls and MQTT_LEAD_CALL.
 */
gint64 mqtt_lead_get(const MqttLead &lead);

/* What to do with a command that plays. */
enum MqttDue {
    MQTT_DUE_WAIT, /* until the time of the call */
    MQTT_DUE_NOW,
    MQTT_DUE_LATE, /* play nothing */
    MQTT_DUE_FAR,  /* further away than MQTT_MAX_WAIT: refuse it */
};

/* How far in the future a command may be, in milliseconds. */
constexpr gint64 MQTT_MAX_WAIT = 604'800'000;

/* Decides about a command whose first sample is to play at `at`. All times are in milliseconds. */
MqttDue mqtt_lead_decide(gint64 at, gint64 now, gint64 lead, gint64 grace);
