#pragma once

/* Executes commands, and answers them. */

#include <systemd/sd-event.h>

#include "mqtt_client.h"

struct MqttBridge;

/* Executes a message with a command, or refuses it. */
void mqtt_jobs_receive(MqttBridge *bridge, const MqttMessage &message);

/* Continues with the commands that the previous process had accepted. */
void mqtt_jobs_resume(MqttBridge *bridge);

/* Plays the jobs that are due. Called by the alarm, whose data is the bridge. The alarm is on the
 * machine's clock, so it also takes effect if the clock is set. */
int mqtt_jobs_on_alarm(sd_event_source *source, guint64 time, void *data);

/* Asks the daemon again about the jobs for which it went away. Called by the timer `retry`. */
int mqtt_jobs_on_retry(sd_event_source *source, guint64 time, void *data);
