#pragma once

/*
 * What sonobrik-mqtt must not forget when it restarts: the commands that it has accepted and not
 * finished, and the identifiers of the last commands. It is saved before the broker is told that a
 * command has arrived: if the program ends before that, the broker sends the command again.
 */

#include <glib.h>
#include <list>
#include <string>
#include <string_view>

#include "mqtt_command.h"
#include "mqtt_memory.h"

enum MqttJobState {
    MQTT_JOB_NEW,
    MQTT_JOB_FINDING,  /* the daemon is asked for the clip's location */
    MQTT_JOB_CHECKING, /* the daemon is asked whether it can play the file */
    MQTT_JOB_RETRYING, /* waits to ask again, because the daemon went away */
    MQTT_JOB_WAITING,  /* for its time */
    MQTT_JOB_PLAYING,  /* the daemon is asked to play */
    MQTT_JOB_STOPPING, /* the daemon is asked to stop */
};

/* A command that is being executed. The members from `topic` to `called_at` are saved. */
struct MqttJob {
    gint64 number = 0;          /* unique in this process */
    std::string topic;          /* on which the command arrived */
    std::string payload;        /* JSON */
    std::string response_topic; /* empty: the node's own */
    std::string correlation;    /* any bytes */
    bool has_correlation = false;
    gint64 received = 0;  /* Unix time in milliseconds */
    gint64 expires = 0;   /* the same; 0: never */
    gint64 called_at = 0; /* when the daemon was asked to play; 0: not yet */

    MqttCommand command;
    MqttJobState state = MQTT_JOB_NEW;
    bool was_retried = false;
    bool needs_check = false; /* the file must be checked even if it plays at once */
    std::string location;     /* once it is found */
    gint64 clip = -1;         /* number of the stored clip, or -1 */
    gint64 call_time = 0;     /* when the daemon was called; microseconds, monotonic */
    gint64 call_lead = 0;     /* the lead at that time, in microseconds */
};

struct MqttStore {
    std::list<MqttJob> jobs;
    MqttMemory memory;
    bool announced = false; /* Home Assistant was told about the node */
    gint64 siren_end = 0; /* when a siren has to stop; Unix time in milliseconds, 0: none has to */
    std::string siren_file; /* what that siren plays */
    gint64 saves = 0;       /* grows with each save, so that the newer one of two files is known */
};

/* Returns the store as JSON. */
std::string mqtt_store_write(const MqttStore &store);

/* Reads the saved members into `store`, which must be new. Leaves out invalid entries. Returns
 * false if `text` is not a store. */
bool mqtt_store_read(MqttStore *store, std::string_view text);

/*
 * Saves the store in the file `path`: all of it or nothing. With `is_durable`, it also survives a
 * power cut that comes after the return. Returns 0 or an errno value.
 */
int mqtt_store_save(const MqttStore &store, const std::string &path, bool is_durable);

/* Loads the store. Returns 0 or an errno value; EBADMSG if the content is not a store. */
int mqtt_store_load(MqttStore *store, const std::string &path);
