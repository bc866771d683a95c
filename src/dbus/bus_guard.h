#pragma once

/* Protects a connection that serves callers from messages that would harm it. Main thread only. */

#include <systemd/sd-bus.h>

/*
 * Refuses calls of GetAll whose interface name is too long to be valid. sd-bus would repeat the
 * name in its error, which can then exceed the bus's limit of 32 MiB for a message; the bus would
 * drop the connection. Stays until `bus` is closed. Returns 0 or a negative errno value.
 */
int bus_guard_setup(sd_bus *bus);

/*
 * Sends queued messages, for at most a second, and drops those that arrive meanwhile. If some are
 * still queued then, closes the connection, so that sd_bus_flush() does not wait for a bus that does
 * not read. Ignores null.
 */
void bus_guard_flush(sd_bus *bus);
