#pragma once

/* Executes commands, and answers them. */

#include <systemd/sd-event.h>

#include "mqtt_client.h"

struct MqttBridge;

/* Returns true while the broker may be sending the messages that it kept while the node was away.
 */
bool mqtt_jobs_is_catching_up(const MqttBridge *bridge);

/* Executes a message with a command, or refuses it. */
void mqtt_jobs_receive(MqttBridge *bridge, const MqttMessage &message);

/* Continues with the commands that the previous process had accepted. */
void mqtt_jobs_resume(MqttBridge *bridge);

/* Lets the siren of the previous process stop at its time. The state must be known. */
void mqtt_jobs_resume_siren(MqttBridge *bridge);

/* Forgets when the siren has to stop, because it does not play any more. */
void mqtt_jobs_end_siren(MqttBridge *bridge);

/* Plays the jobs that are due. Called by the alarm, whose data is the bridge. The alarm is on the
 * machine's clock, so it also takes effect if the clock is set. */
int mqtt_jobs_on_alarm(sd_event_source *source, guint64 time, void *data);

/* Asks the daemon again about the jobs for which it went away. Called by the timer `retry`. */
int mqtt_jobs_on_retry(sd_event_source *source, guint64 time, void *data);

/* Sends an answer that the broker refused on its response topic to the node's own topic. */
void mqtt_jobs_on_published(MqttBridge *bridge, int message, bool is_refused);

/* Sends the answers that waited for a connection. */
void mqtt_jobs_send_kept(MqttBridge *bridge);
