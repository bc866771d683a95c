#pragma once

/* The daemon, as sonobrik-mqtt uses it over the bus: calls that do not block, and notifications. */

#include <functional>
#include <glib.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "client_bus.h"
#include "client_events.h"

struct MqttNews {
    /* The daemon or its events have appeared or gone. */
    std::function<void(bool is_running)> owner;
    std::function<void(const ClientEvent &event)> event;
    /* The clips may have changed. */
    std::function<void()> clips;
    /* The bus is lost; the program has to end. */
    std::function<void()> lost;
};

struct MqttDaemon {
    sd_bus *bus;
    sd_event_source *watch; /* of the folder with the clips' records */
    MqttNews news;
};

/* Gets the reply, or null with an error like those of client_bus_call(). */
using MqttReply = std::function<void(sd_bus_message *answer, const GError *error)>;

/* Connects to the bus and calls the handlers of `news` from `event`. Returns null with an error on
 * failure. */
MqttDaemon *mqtt_daemon_new(sd_event *event, const MqttNews &news, GError **error);

void mqtt_daemon_free(MqttDaemon *daemon);

/*
 * Calls `member` with a text, or without an argument if `text` is null. `done` gets the reply
 * later, but never before this function returns, unless the call cannot be sent.
 */
void mqtt_daemon_call(MqttDaemon *daemon, const ClientInterface *interface, const char *member,
                      const char *text, const MqttReply &done);

/* Gets the clips, an array of ClientClip, or null with an error. */
using MqttClips = std::function<void(GPtrArray *clips, const GError *error)>;
void mqtt_daemon_list(MqttDaemon *daemon, bool with_metadata, const MqttClips &done);

/* Gets the outputs, an array of ClientOutput, or null with an error. */
void mqtt_daemon_list_outputs(MqttDaemon *daemon,
                              const std::function<void(GPtrArray *outputs)> &done);
