#pragma once

/* Waiting for the end of a clip. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "ctl_say.h"

/* How a wait ended. */
struct CtlWaitResult {
    int signal;   /* that asked to stop the clip; 0 if it ended by itself */
    CtlCall stop; /* how it was stopped then, to explain a failure by */
};

/* Whether ctl_wait() shows how far the clip has come. */
bool ctl_wait_shows_progress();

/* The call that stops what plays, to explain its failure by. */
CtlCall ctl_wait_stop_call(sd_bus *bus);

/*
 * Sends `play`, a call of PlayClip, which it takes, and waits for its answer without limit. Shows
 * how far the clip has come meanwhile: of `length_ms`, or without an end if that is negative.
 * SIGINT and SIGTERM, unless they were ignored, stop the clip; a second one, or a daemon that does
 * not answer for 5 s, ends the wait for that. Sets `error` if the clip could not be played or,
 * after a signal, not be stopped.
 */
CtlWaitResult ctl_wait(sd_bus *bus, sd_bus_message *play, gint64 length_ms, const char *label,
                       GError **error);
