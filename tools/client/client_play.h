#pragma once

/* The option string of a play request. */

#include <glib.h>

/* Marks a number as not given; the daemon then uses its default. */
constexpr gint64 CLIENT_NOT_GIVEN = G_MININT64;

/* The largest values that the daemon accepts. */
constexpr gint64 CLIENT_MAX_VOLUME = 1000;
constexpr gint64 CLIENT_MAX_OUTPUT = 5;

/* The options of a play request. */
struct ClientPlay {
    const char *location;                    /* path, any bytes */
    gint64 volume = CLIENT_NOT_GIVEN;        /* percent, 0 to CLIENT_MAX_VOLUME */
    gint64 repeat = CLIENT_NOT_GIVEN;        /* extra plays after the first; -1 repeats forever */
    gint64 output = CLIENT_NOT_GIVEN;        /* 0 to CLIENT_MAX_OUTPUT */
    gint64 device = CLIENT_NOT_GIVEN;        /* audio device; used with `device_output` and ... */
    gint64 device_output = CLIENT_NOT_GIVEN; /* ... instead of `output` */
};

/*
 * Returns the option string, with the location escaped; free it with g_free(). The daemon plays the
 * file of exactly that name. Only if that file does not exist or cannot be played does the daemon
 * treat '*' and '?' in the last component as wildcards.
 */
char *client_play_options(const ClientPlay *play);

/* Returns true if the last component of `path` contains a character that the daemon may treat as a
 * wildcard. */
bool client_play_has_wildcards(const char *path);
