#pragma once

/* The event loop of commands that print what happens until Ctrl-C. */

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

/*
 * Attaches `bus` to `event`. When the connection is lost, prints an error and ends the loop with
 * CTL_AWAY. Returns 0 or more, or a negative errno value.
 */
int ctl_watch_attach(sd_bus *bus, sd_event *event);

/* Runs the loop until something ends it, or until the reader of standard output closes the pipe.
 * Then detaches `bus`. Returns the exit status. */
int ctl_watch_run(sd_bus *bus, sd_event *event);
