#pragma once

/* Connects the broker and the daemon: executes commands, answers them, and reports. */

#include <string>
#include <systemd/sd-event.h>

#include "mqtt_conf.h"

/* Where files are kept. */
struct MqttFolders {
    std::string state;   /* survives a reboot */
    std::string runtime; /* survives a restart of the program, but not a reboot */
};

struct MqttBridge;

/* Returns a bridge that works while the loop `event` runs, or null with the reason in `why`.
 * `conf` must stay valid. */
MqttBridge *mqtt_bridge_new(sd_event *event, const MqttConf *conf, const MqttFolders &folders,
                            const std::string &password, std::string *why);

/* Disconnects from the broker and saves the store. Returns false, and frees nothing, if the program
 * has to end with _exit(); see mqtt_client_free(). */
bool mqtt_bridge_free(MqttBridge *bridge);
