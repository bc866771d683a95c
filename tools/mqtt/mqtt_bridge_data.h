#pragma once

/* The bridge's data, which mqtt_bridge.cpp, mqtt_catch_up.cpp, mqtt_jobs.cpp, mqtt_outbox.cpp,
 * mqtt_save.cpp and mqtt_siren.cpp share. */

#include <deque>
#include <glib.h>
#include <map>
#include <string>
#include <systemd/sd-event.h>

#include "mqtt_client.h"
#include "mqtt_conf.h"
#include "mqtt_daemon.h"
#include "mqtt_lead.h"
#include "mqtt_log.h"
#include "mqtt_state.h"
#include "mqtt_store.h"

/* Stands for a time that is not known. */
constexpr gint64 MQTT_UNKNOWN = -1;

/* An answer that may have to be sent later, or again. */
struct MqttKept {
    std::string topic;
    std::string payload;
    std::string correlation;
    bool has_correlation;
};

/* The retained messages as they were last published, so that they are not repeated. */
struct MqttPublished {
    std::string state;
    std::string clips;
    std::string info;
    std::string discovery;
    std::string siren;
};

struct MqttBridge {
    sd_event *event;
    const MqttConf *conf;
    MqttClient *client;
    MqttDaemon *daemon;

    MqttStore store;
    std::string store_path;
    std::string spare_path;     /* see mqtt_save.h */
    bool has_spare;             /* the spare file exists */
    bool must_save;             /* the store has changed ... */
    bool must_be_durable;       /* ... by a command that the broker will not send again */
    gint64 save_failed_at;      /* monotonic; 0: the last attempt succeeded */
    MqttLogLimit save_failures; /* limits their lines in the log */
    gint64 last_number;         /* of a job */

    MqttState state;
    bool knows_owner; /* the bus has reported the owner: replies no longer set `is_running` */
    MqttLead lead;
    MqttPublished published;
    std::deque<MqttKept> kept;           /* answers for the next connection */
    std::map<int, MqttKept> unconfirmed; /* answers, by message */
    int short_connections;               /* see mqtt_outbox_on_ended() */
    MqttLogLimit refusals;

    /* See mqtt_catch_up.h. Durations and times since the boot are in milliseconds. */
    bool is_catching_up;
    int alive_fd;         /* the file with the time of the last packet */
    gint64 last_kept;     /* when the last message came that the broker kept; since the boot */
    gint64 away;          /* for how long the broker may have kept messages, or MQTT_UNKNOWN */
    gint64 held_up;       /* for how long messages may have been waiting to be read */
    gint64 last_turn;     /* of the event loop; since the boot */
    std::string mark;     /* correlation data of the newest "online" */
    gint64 alive;         /* time since the boot of the last packet, or MQTT_UNKNOWN */
    gint64 alive_written; /* what the file contains */

    sd_event_source *post;
    sd_event_source *alarm;     /* the next call of the daemon, on the machine's clock */
    sd_event_source *retry;     /* asks a daemon that went away again */
    sd_event_source *refresh;   /* lists the clips */
    sd_event_source *settled;   /* publishes the state after an event */
    sd_event_source *siren_end; /* stops a siren that has a duration */
    bool is_listing;            /* the daemon is asked for the clips */
    bool must_list_again;
    bool is_settling; /* `settled` is running: only a part of the events may have arrived */
};
