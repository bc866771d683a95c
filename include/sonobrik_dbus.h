#pragma once

/*
 * Connections to the system bus that the GLib main loop runs.
 *
 * Main thread only. Operations that return int return the result of sd-bus, which is a negative
 * errno value on failure, or -1, with a warning, for a null argument.
 */

#include <glib.h>
#include <systemd/sd-bus.h>

struct BusWatch;
struct sonobrik_dbus_source; /* a GLib source that runs an sd-event loop */

struct sonobrik_dbus {
    sd_bus *bus; /* owned */
    /*
     * The slot of the last registration. Each registration overwrites the one before, which stays
     * registered until the bus is closed; teardown releases the last.
     */
    sd_bus_slot *slot;
    sonobrik_dbus_source *source;         /* owned */
    const char *service_name;             /* borrowed; null if the connection has no name */
    void (*on_lost)(sonobrik_dbus *conn); /* see sonobrik_dbus_attach() */
    BusWatch *watch;                      /* owned; null if the connection has no name */
};

/*
 * Connects to the system bus as `service_name`, a string that must outlive the connection,
 * registers the daemon's error names with sd-bus, and attaches the connection to the main loop. If
 * the connection is lost later, or the bus does not read from it for 30 s, logs it and makes the
 * process exit with status 1. Returns a new record, or null with a log line. If a step after
 * opening fails, the connection stays open: callers treat that as fatal, and the process exits.
 */
sonobrik_dbus *sonobrik_dbus_setup(const char *service_name);

/*
 * Lets the main loop run `conn->bus`, an open connection: messages that nothing is registered for
 * are dropped as they arrive. Calls `on_lost` once if the connection is lost; it may call
 * sonobrik_dbus_teardown(). Returns false with a log line on failure.
 */
bool sonobrik_dbus_attach(sonobrik_dbus *conn, void (*on_lost)(sonobrik_dbus *conn));

/*
 * Detaches the connection from the main loop, sends queued messages and closes it. Waits at most a
 * second for a bus that does not read. The record itself is not freed. Does nothing for null.
 */
void sonobrik_dbus_teardown(sonobrik_dbus *conn);

/* Registers `callback` for every message to the object `path`; it runs before method tables. */
int sonobrik_dbus_add_object(sonobrik_dbus *conn, const char *path,
                             sd_bus_message_handler_t callback, void *user_data);

/*
 * Registers a method table as `interface` of the object `path`. The table must outlive the
 * connection.
 */
int sonobrik_dbus_add_vtable(sonobrik_dbus *conn, const char *path, const char *interface,
                             const sd_bus_vtable *vtable, void *user_data);

/* Registers `callback` for the messages that the D-Bus match rule `match` selects. */
int sonobrik_dbus_add_match(sonobrik_dbus *conn, const char *match,
                            sd_bus_message_handler_t callback, void *user_data);
