#pragma once

/* Calls to the daemon over the system bus. Use a connection only on the thread that opened it. */

#include <functional>
#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus, sd_bus_flush_close_unref)

/* The address of an interface: the service, its object and the interface's name. */
struct ClientInterface {
    const char *service;
    const char *object;
    const char *interface;
};

/* Plays and adds clips. The access policy decides who may call it. */
extern const ClientInterface CLIENT_SONOBRIK;

/* Lists and changes the stored clips. The bus policy decides who may call it. */
extern const ClientInterface CLIENT_LEGACY;

/*
 * Returns a connection to the system bus; free it with sd_bus_flush_close_unref(). Returns null and
 * sets CLIENT_ERROR_NO_BUS on failure.
 */
sd_bus *client_bus_open(GError **error);

/*
 * Does the same for the system bus of `machine`, "[USER@]HOST[:PORT]", over ssh. Returns when the
 * connection is established. ssh may ask questions on the terminal, and prints its errors to
 * standard error.
 */
sd_bus *client_bus_open_remote(const char *machine, GError **error);

/*
 * Limits how long each later client_bus_call() on `bus` waits. A call that takes longer fails with
 * CLIENT_ERROR_TIMEOUT, but the daemon may still carry it out.
 */
void client_bus_set_limit(sd_bus *bus, guint seconds);

/*
 * Limits how long all later client_bus_call()s of the process wait together, on whichever
 * connection. The limits of client_bus_set_limit() still apply. Once the time is used up, every
 * call fails with CLIENT_ERROR_TIMEOUT and is not sent. 0 removes the limit. Not thread-safe.
 */
void client_bus_set_total_limit(guint seconds);

/*
 * Returns a new call of `member`, or null with CLIENT_ERROR_ARGUMENT or CLIENT_ERROR_NO_BUS.
 * `types` and the arguments after it are those of sd_bus_message_append(); `types` may be null.
 * Send the call with client_bus_call(), or with sd_bus_call_async() from an event loop.
 */
sd_bus_message *client_bus_new_call(sd_bus *bus, const ClientInterface *interface,
                                    const char *member, GError **error, const char *types, ...);

/*
 * Sends `call`, takes ownership of it, and waits for the reply, without a time limit unless
 * client_bus_set_limit() sets one: playing a clip, probing files and a slow on-screen controls
 * service can all take longer than the bus library's default of 25 s. The wait also ends when the
 * daemon or the bus goes away. Returns the reply, or null with any error except
 * CLIENT_ERROR_NO_CLIP. If `call` is null, returns null and leaves `error` alone, so the result of
 * client_bus_new_call() can be passed unchecked.
 */
sd_bus_message *client_bus_call(sd_bus *bus, sd_bus_message *call, GError **error);

/*
 * Calls `handler` with each NameOwnerChanged signal of the bus for `name`, whose arguments are the
 * name, its old and its new owner. Returns 0 or more, or a negative errno value. The match lasts as
 * long as the connection.
 */
int client_bus_match_owner(sd_bus *bus, const char *name, sd_bus_message_handler_t handler,
                           void *data);

/* Sets `error` to describe a D-Bus error; `reason` is a negative errno value. `bus_error` may be
 * null. */
void client_bus_set_error(GError **error, int reason, const sd_bus_error *bus_error);

/*
 * Reads the D-Bus dictionary at the current position of `m`. `entry` is the signature of one entry,
 * such as "ia{sv}". Calls `read` inside each entry; it reads the key and the value and returns a
 * negative errno value on failure. Returns 0, or the first negative errno value.
 */
int client_bus_read_dict(sd_bus_message *m, const char *entry, const std::function<int()> &read);

/*
 * Reads the a{sv} at the current position of `m`. Calls `read` with the name and the signature of
 * each value; it reads the variant and returns a positive number, or returns 0 to skip the value,
 * or a negative errno value on failure. Returns 0, or the first negative errno value.
 */
int client_bus_read_properties(sd_bus_message *m,
                               const std::function<int(const char *name, const char *type)> &read);
