#pragma once

/*
 * The platform's own connection to the system bus, which its services share. It is served by the
 * default main context.
 *
 * Main thread only; a forked child must not use the connection of its parent.
 */

#include <glib.h>
#include <systemd/sd-bus.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus_message, sd_bus_message_unref)
G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(sd_bus_error, sd_bus_error_free)

/*
 * Returns the shared connection, ready for use and held for the caller until
 * platform_bus_release(). Opens one when there is none, or when the last one was lost; that may
 * take a few seconds on a bus that does not answer. Null, with `error` set, when the bus cannot be
 * reached.
 *
 * Whoever registers something keeps its slots and frees them before the release. Calls that wait
 * for an answer are bounded by the same few seconds.
 *
 * A connection that is lost is logged once. Its holders find it not open (platform_bus_is_open()):
 * they release it, acquire the next one, and register there anew what they had registered.
 */
sd_bus *platform_bus_acquire(GError **error);

/* Is `bus` there and not lost? */
bool platform_bus_is_open(sd_bus *bus);

/*
 * Gives a held connection back; null does nothing. The last holder's release closes it, after what
 * was sent has left the process.
 */
void platform_bus_release(sd_bus *bus);

/*
 * For the unit tests only: bounds the opening of a connection, and the calls on connections that
 * are opened later, by `usec` microseconds.
 */
void platform_bus_set_timeout(uint64_t usec);
