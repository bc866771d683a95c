#pragma once

/* Waiting for the end of a clip. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "ctl_say.h"

/* How a wait ended. */
struct CtlWaitResult {
    int signal;   /* the signal that stopped the clip; 0 if there was none */
    CtlCall stop; /* the call that stopped the clip after a signal, to explain its failure */
};

/* Returns true if ctl_wait() shows the progress of the clip. */
bool ctl_wait_shows_progress();

/* Returns the call that stops playback, to explain its failure. */
CtlCall ctl_wait_stop_call(sd_bus *bus);

/*
 * Sends `play`, a call of PlayClip, takes ownership of it, and waits for the reply without a time
 * limit. Shows the progress of the clip meanwhile; `length_ms` is negative if it is unknown or
 * infinite. SIGINT and SIGTERM stop the clip, unless the program was started with them ignored.
 * After a signal, the wait ends when the clip has stopped, with a second signal, or after 5 s. Sets
 * `error` if playing or, after a signal, stopping failed.
 */
CtlWaitResult ctl_wait(sd_bus *bus, sd_bus_message *play, gint64 length_ms, const char *label,
                       GError **error);
