#pragma once

/* What the node knows of its daemon, and the retained messages that report it. */

#include <glib.h>
#include <string>
#include <vector>

#include "client_events.h"
#include "mqtt_clock.h"
#include "mqtt_conf.h"

struct MqttOutput {
    gint32 output; /* this and the next two have the meaning that they have in ClientOutput */
    gint32 device;
    gint32 device_output;
    bool playing;
    std::string file; /* what is playing or played last; empty if nothing did */
    gint64 since;     /* when it began to play or ended; Unix time in milliseconds, 0: unknown */
};

struct MqttClip {
    gint32 number;
    std::string name;
    std::string location;
    std::string tone; /* the clip's name at Home Assistant, unlike that of any other clip */
    std::vector<std::string> media_types;
    gint64 size_kib;    /* negative: unknown */
    gint64 duration_ms; /* negative: unknown */
};

struct MqttState {
    bool is_running = false; /* the daemon has its bus name */
    bool knows_outputs = false;
    bool knows_clips = false;
    std::vector<MqttOutput> outputs;
    std::vector<MqttClip> clips;
};

/* Replaces the outputs by those of client_outputs_list(). An output that is still playing the same
 * file keeps its time. */
void mqtt_state_set_outputs(MqttState *state, const GPtrArray *outputs, gint64 now);

/* Applies an event. */
void mqtt_state_apply(MqttState *state, const ClientEvent &event, gint64 now);

/* Replaces the clips by those of client_clips_list(). */
void mqtt_state_set_clips(MqttState *state, const GPtrArray *clips);

/* Returns true if an output is playing. */
bool mqtt_state_is_playing(const MqttState &state);

/* Returns the clip of this tone, or the first one if `tone` is empty, or null. */
const MqttClip *mqtt_state_find_tone(const MqttState &state, const std::string &tone);

/*
 * Returns how often the file at `location` must repeat to play for `duration` milliseconds: often
 * enough, and not forever, so that a siren ends even if nothing stops it. Returns -1, which repeats
 * until a stop, if the length of the file is not known.
 */
gint64 mqtt_state_count_repeats(const MqttState &state, const std::string &location,
                                gint64 duration);

/* Return the JSON of the retained messages "state", "clips" and "info". */
std::string mqtt_state_write(const MqttState &state);
std::string mqtt_state_write_clips(const MqttState &state);
std::string mqtt_state_write_info(const MqttState &state, const MqttConf &conf,
                                  const std::string &library, const MqttClock &clock);
