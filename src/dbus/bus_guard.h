#pragma once

/* Protects a connection that serves callers from messages that would harm it. Main thread only. */

#include <glib.h>
#include <systemd/sd-bus.h>

/*
 * Refuses calls of GetAll whose interface name is too long to be valid. sd-bus would repeat the
 * name in its error, which can then exceed the bus's limit of 32 MiB for a message; the bus would
 * drop the connection. Stays until `bus` is closed. Returns 0 or a negative errno value.
 */
int bus_guard_setup(sd_bus *bus);

/*
 * Sends queued messages, for at most a second, and drops those that arrive meanwhile. If some are
 * still queued then, closes the connection, so that sd_bus_flush() does not wait for a bus that
 * does not read. Ignores null.
 */
void bus_guard_flush(sd_bus *bus);

/* Notices that the bus does not read what the daemon sends. */
struct BusWatch {
    sd_bus *bus; /* borrowed */
    void (*on_silence)(void *user_data);
    void *user_data;
    guint timer;           /* 0 if none */
    sd_bus_slot *question; /* a call to the bus that is not answered yet; null if none */
    unsigned ticks;        /* of the timer since the question */
    unsigned missed;       /* those at which no message waited to be read either */
};

/*
 * Starts to watch `bus`, which the caller's `*watch` names with `on_silence` and `user_data`. A
 * call from a client starts a timer of 15 s, which asks the bus for its id. Calls `on_silence` once
 * if the answer is missing and something was not read by the bus at two more ticks, or after 5
 * minutes if other messages waited to be read all the time. An idle connection has no timer.
 * Returns 0 or a negative errno value.
 */
int bus_watch_setup(BusWatch *watch);

/* Stops watching, before the connection is closed. */
void bus_watch_teardown(BusWatch *watch);

/* For the unit tests only: sets the interval of timers that are started later. */
void bus_watch_set_interval(guint msec);
