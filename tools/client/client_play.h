#pragma once

/* The option text of a play request. */

#include <glib.h>

constexpr gint64 CLIENT_NOT_GIVEN = G_MININT64;

/* What is to be played, and how. A number that is CLIENT_NOT_GIVEN is left to the daemon. */
struct ClientPlay {
    const char *location;                    /* path, any bytes */
    gint64 volume = CLIENT_NOT_GIVEN;        /* percent, 0 to 1000 */
    gint64 repeat = CLIENT_NOT_GIVEN;        /* plays after the first; -1: until stopped */
    gint64 output = CLIENT_NOT_GIVEN;        /* 0 to 5 */
    gint64 device = CLIENT_NOT_GIVEN;        /* instead of `output`, both: an audio device ... */
    gint64 device_output = CLIENT_NOT_GIVEN; /* ... and one of its outputs */
};

/*
 * Returns the text, owned by the caller, with the location escaped. It plays that file; only where
 * there is no such file does the daemon take '*' and '?' in its last component for wildcards.
 */
char *client_play_options(const ClientPlay *play);
