#pragma once

/*
 * The platform's connection to the system bus. The access policy, the events and the change notices
 * share it. The default main context serves it.
 *
 * The daemon has its own code for bus connections. The platform must not use it: a device can build
 * parts of this platform into a library that knows nothing of the daemon.
 *
 * Main thread only. A forked child must not use the connection of its parent.
 */

#include <glib.h>
#include <systemd/sd-bus.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus_message, sd_bus_message_unref)
G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(sd_bus_error, sd_bus_error_free)

/*
 * Makes `*bus` the shared connection, open and held for the caller. `*bus` is null or a connection
 * that an earlier call returned:
 *
 * - If it is open, nothing happens.
 * - If it is null, the caller becomes a holder. The first holder opens the connection.
 * - If it was lost, it is released and replaced by a new connection. The caller must free its slots
 *   before this call and register its objects on the new connection.
 *
 * Returns false, leaves null in `*bus` and sets `error` if the bus cannot be reached. Waits at most
 * a few seconds for a bus that does not answer; calls on the connection have the same limit.
 */
bool platform_bus_hold(sd_bus **bus, GError **error);

/* Returns true if `bus` is not null and was not lost. */
bool platform_bus_is_open(sd_bus *bus);

/*
 * Releases a held connection, whose slots the caller has freed. Ignores null. When the last holder
 * releases it, the connection sends what is queued and closes.
 *
 * A lost connection is logged once, when the main loop, platform_bus_hold() or the last release
 * notices the loss.
 */
void platform_bus_release(sd_bus *bus);

/*
 * For the unit tests only: sets the time-out for opening a connection, and for calls on connections
 * that are opened later, to `usec` microseconds.
 */
void platform_bus_set_timeout(uint64_t usec);
