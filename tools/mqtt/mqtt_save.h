#pragma once

/*
 * Saves the bridge's store in the state folder, which survives a restart of the machine. A second
 * file, in the runtime folder, is in memory and survives a restart of the bridge only. The bridge
 * writes it in two cases: before it asks the daemon to play, because a clip must not wait for the
 * disk; and if the state folder cannot be written, for example because the disk is full. The next
 * save in the state folder removes it: otherwise, if the first file were lost, the second one would
 * bring back commands that were finished long ago.
 */

struct MqttBridge;

/* Loads the newer one of the two files. */
void mqtt_save_load(MqttBridge *bridge);

/*
 * Saves the store if it has changed, or if the last attempt failed a second ago or longer. The
 * broker may be told about its commands afterwards, even if this fails: a command that cannot be
 * saved is still executed.
 */
void mqtt_save_changes(MqttBridge *bridge);

/* Saves the store in the runtime folder only. mqtt_save_changes() must follow. */
void mqtt_save_quickly(MqttBridge *bridge);
