#pragma once

/*
 * The connection to the broker, on an sd-event loop. It reconnects by itself. All functions are for
 * the loop's thread, and all handlers run there.
 */

#include <functional>
#include <glib.h>
#include <string>
#include <systemd/sd-event.h>
#include <vector>

#include "mqtt_conf.h"

struct MqttMessage {
    std::string topic;
    std::string payload;
    bool retained = false;
    std::string response_topic;
    std::string correlation;
    bool has_correlation = false;
    gint64 expiry = -1; /* seconds that were left when the broker sent it; -1: no expiry */
};

struct MqttHandlers {
    /* `has_session` is true if the broker has kept the subscriptions and the messages that came
     * while the node was away. */
    std::function<void(bool has_session)> connected;
    /* A packet came from the broker. */
    std::function<void()> heard;
    /* Returning from here does not acknowledge the message: mqtt_client_flush() does. */
    std::function<void(const MqttMessage &message)> received;
    /* The broker has confirmed or refused the message with this number. */
    std::function<void(int message, bool is_refused)> published;
    /* The last connection has ended, and the next attempt follows. `was_stable` is true if it
     * lasted for some time. */
    std::function<void(bool was_stable)> ended;
};

struct MqttClient;

/* Returns a client that connects as soon as the loop runs, or null with the reason in `why`. `conf`
 * must stay valid. */
MqttClient *mqtt_client_new(sd_event *event, const MqttConf *conf, const std::string &password,
                            const MqttHandlers &handlers, std::string *why);

/* Frees the client and closes its connection. Returns false, and frees nothing, while a thread is
 * connecting: that cannot be interrupted, so the program has to end with _exit(). */
bool mqtt_client_free(MqttClient *client);

bool mqtt_client_is_connected(const MqttClient *client);

/* Subscribes to `topic` with QoS 1, without the message that is retained there. */
void mqtt_client_subscribe(MqttClient *client, const std::string &topic);

void mqtt_client_unsubscribe(MqttClient *client, const std::string &topic);

/*
 * Publishes a message with QoS 1. `correlation` is its correlation data, or null. Messages that the
 * broker has not confirmed are repeated after a reconnection. Returns the message's number, or 0,
 * after a line in the log, if the client is not connected or the message cannot be sent.
 */
int mqtt_client_publish(MqttClient *client, const std::string &topic, const std::string &payload,
                        bool retain, const std::string *correlation);

/*
 * Forgets the published messages that the broker has not confirmed, so that they are not repeated.
 * Only the handler `ended` may call it. Returns false, and forgets nothing, on failure.
 */
bool mqtt_client_forget(MqttClient *client);

/* Returns the number of published messages that the broker has not confirmed. */
unsigned mqtt_client_count_unconfirmed(const MqttClient *client);

/* Sends what can be sent without waiting: messages, and the acknowledgements of received ones. Call
 * it after each dispatch of the loop. */
void mqtt_client_flush(MqttClient *client);

/* Disconnects. The broker publishes the will and keeps the session. Waits up to a second for the
 * network. */
void mqtt_client_leave(MqttClient *client);

/* Returns the version of libmosquitto. */
std::string mqtt_client_library(void);
