#pragma once

/*
 * The platform's connections to the system bus. The events and the change notices share one. The
 * access policy has its own, on which nothing is exported: callers of the events cannot delay its
 * questions to the bus. The default main context serves both.
 *
 * Neither connection accepts file descriptors.
 *
 * The daemon has its own code for bus connections. The platform must not use it: a device can build
 * parts of this platform into a library that knows nothing of the daemon.
 *
 * Main thread only. A forked child must not use the connections of its parent.
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

/* Does the same with the connection of the access policy. */
bool platform_bus_hold_lookup(sd_bus **bus, GError **error);

/*
 * Does the same, but does not wait for the bus. The main loop and platform_bus_hold_lookup(), which
 * must come before the first call, finish what this started. Leaves null in `*bus` on failure.
 */
void platform_bus_start_lookup(sd_bus **bus);

/* Returns true if `bus` is not null and was not lost. */
bool platform_bus_is_open(sd_bus *bus);

/*
 * Releases a held connection, whose slots the caller has freed. Ignores null. When the last holder
 * releases it, the connection sends what is queued, for at most a second, and closes.
 *
 * A lost connection is logged once, when the main loop, platform_bus_hold() or the last release
 * notices the loss.
 */
void platform_bus_release(sd_bus *bus);

/*
 * Sends `call` and waits for its reply, which it stores in `*reply` for the caller to free; null if
 * there was none. Returns 0 or a negative errno; that of an error reply, too. Messages that arrive
 * before the reply are processed, so they do not pile up as they would in sd_bus_call().
 */
int platform_bus_call(sd_bus *bus, sd_bus_message *call, sd_bus_message **reply);

/*
 * For the unit tests only: sets the time-out for opening a connection, and for calls on connections
 * that are opened later, to `usec` microseconds.
 */
void platform_bus_set_timeout(uint64_t usec);
