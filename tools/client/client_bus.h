#pragma once

/* Calls to the daemon over the system bus. A connection belongs to the thread that opened it. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus, sd_bus_flush_close_unref)

/* What can be called: an interface of an object of a service. */
struct ClientInterface {
    const char *service;
    const char *object;
    const char *interface;
};

/* Playing and adding clips; the access policy decides who may. */
extern const ClientInterface CLIENT_SONOBRIK;

/* The stored clips, entry by entry; the bus's policy decides who may. */
extern const ClientInterface CLIENT_LEGACY;

/*
 * Returns a connection to the system bus, to be ended with sd_bus_flush_close_unref(), or null with
 * CLIENT_ERROR_NO_BUS.
 */
sd_bus *client_bus_open(GError **error);

/*
 * Returns a new call of `member`, to be sent with client_bus_call() or, if the caller has a loop to
 * wait in, with sd_bus_call_async(), or null with CLIENT_ERROR_ARGUMENT. `types` and what follows
 * are those of sd_bus_message_append(); `types` may be null.
 */
sd_bus_message *client_bus_new_call(sd_bus *bus, const ClientInterface *interface,
                                    const char *member, GError **error, const char *types, ...);

/*
 * Sends `call`, which it takes, and waits for the answer as long as it takes: a clip that plays,
 * files that are looked into and a silent on-screen controls service all hold an answer longer
 * than the bus library's 25 s. The daemon's end ends the wait. Returns the answer, or null with any
 * error but CLIENT_ERROR_NO_CLIP. A null call returns null and leaves `error` as it is.
 */
sd_bus_message *client_bus_call(sd_bus *bus, sd_bus_message *call, GError **error);

/* Sets `error` to what an error that came over the bus means; `reason` is a negative errno value.
 */
void client_bus_set_error(GError **error, int reason, const sd_bus_error *bus_error);
