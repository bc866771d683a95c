#pragma once

/* Commands to a node: the JSON of a message, and what came with it. */

#include <glib.h>
#include <string>
#include <string_view>

#include "client_play.h"
#include "mqtt_topics.h"

/* The longest identifier, in bytes. */
constexpr size_t MQTT_MAX_ID = 128;

/* The largest `at`: the end of the year 9999. */
constexpr gint64 MQTT_MAX_AT = 253'402'300'799'999;

/* The longest duration of a siren, in seconds. */
constexpr gint64 MQTT_MAX_DURATION = 86'400;

struct MqttCommand {
    MqttTopicKind kind = MQTT_TOPIC_OTHER; /* MQTT_TOPIC_PLAY, _STOP or _PING */
    std::string group;                     /* the group that was addressed, or empty */
    std::string id;                        /* empty if none was given */
    bool id_is_number = false;             /* the JSON had a number; answers repeat it as one */

    /* What to play; exactly one of them, unless it is a command of Home Assistant. */
    std::string clip;      /* the number of a stored clip, or its name */
    std::string clip_name; /* the name of a stored clip, even if it looks like a number */
    std::string location;  /* a path; relative ones are relative to the clip folder */

    /* A command of Home Assistant: it plays the clip of this tone, or the first clip if empty. */
    bool is_siren = false;
    std::string tone;

    gint64 volume = CLIENT_NOT_GIVEN; /* this and the next two are those of ClientPlay, in range */
    gint64 repeat = CLIENT_NOT_GIVEN;
    gint64 output = CLIENT_NOT_GIVEN;
    gint64 at = CLIENT_NOT_GIVEN;       /* when the first sample plays; Unix time in milliseconds */
    gint64 duration = CLIENT_NOT_GIVEN; /* of a siren, in seconds */
};

/*
 * Reads `payload` into `command`, whose `kind` and `group` are set. Returns false and sets `why` to
 * a sentence if the payload is not understood; the identifier is set if it could be read.
 */
bool mqtt_command_read(MqttCommand *command, std::string_view payload, std::string *why);

/*
 * Reads a command of Home Assistant for its siren, and sets `kind` too. Returns false and sets
 * `why` if it is not understood.
 */
bool mqtt_command_read_siren(MqttCommand *command, std::string_view payload, std::string *why);

/*
 * Returns the absolute path of a command's location in `path`. Returns false and sets `why` if it
 * is outside the clip folder, unless `is_any_allowed`.
 */
bool mqtt_command_find_location(const std::string &location, bool is_any_allowed, std::string *path,
                                std::string *why);
