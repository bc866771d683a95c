#pragma once

/*
 * Bus connections: each has a well-known name on the system bus and is driven by the GLib main
 * loop.
 *
 * Everything here runs on the main thread. Operations that return int return what sd-bus returned,
 * a negative errno value on failure, or -1, with a warning, for a null argument.
 */

#include <glib.h>
#include <systemd/sd-bus.h>

struct sonobrik_dbus_source; /* a GLib source that runs an sd-event loop */

struct sonobrik_dbus {
    sd_bus *bus; /* owned */
    /*
     * The slot of the last registration. Each registration overwrites that of the one before, which
     * then lives as long as the bus; teardown releases the last. One field for all is meant.
     */
    sd_bus_slot *slot;
    sonobrik_dbus_source *source; /* owned */
};

/*
 * Connects to the system bus as `service_name`, makes the daemon's error names known to sd-bus, and
 * attaches the connection to the default main context. Returns a new record, or null with a log
 * line. A connection that was opened before a later step failed is not closed: its callers give up
 * then, and the process ends.
 */
sonobrik_dbus *sonobrik_dbus_setup(const char *service_name);

/*
 * Detaches the connection from the main loop, sends what is queued and closes it. The record
 * itself, which then holds nothing, is not freed. Null does nothing.
 */
void sonobrik_dbus_teardown(sonobrik_dbus *conn);

/* Has `callback` see every message to the object `path`, ahead of its method tables. */
int sonobrik_dbus_add_object(sonobrik_dbus *conn, const char *path,
                             sd_bus_message_handler_t callback, void *user_data);

/* Publishes a method table, which must outlive the connection, as `interface` of the object `path`.
 */
int sonobrik_dbus_add_vtable(sonobrik_dbus *conn, const char *path, const char *interface,
                             const sd_bus_vtable *vtable, void *user_data);

/* Has `callback` receive the messages that the D-Bus match rule `match` selects. */
int sonobrik_dbus_add_match(sonobrik_dbus *conn, const char *match,
                            sd_bus_message_handler_t callback, void *user_data);
