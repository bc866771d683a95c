#pragma once

/* The siren of Home Assistant, which stops after the duration that its command gives. */

struct MqttBridge;
struct MqttJob;

/* Stops the clip that the job has just started after the duration of its command, if it has one.
 * Forgets the end of an earlier siren. */
void mqtt_siren_set(MqttBridge *bridge, const MqttJob &job);

/* Lets the siren of the previous process stop at its time, or forgets it if it no longer plays. The
 * state must be known. */
void mqtt_siren_resume(MqttBridge *bridge);

/* Forgets when the siren has to stop, because it no longer plays. */
void mqtt_siren_forget(MqttBridge *bridge);
