#pragma once

/*
 * The audio outputs and what is playing on them. The daemon has no method that lists them. The
 * stock platform publishes an object on the bus for each event, and the outputs are read from these
 * objects. Other platforms may not publish any.
 */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

/* The stock platform's events: bus name, object manager, and the interfaces of each event object.
 */
extern const char *const CLIENT_EVENTS_SERVICE;
extern const char *const CLIENT_EVENTS_OBJECT;
extern const char *const CLIENT_EVENT_INTERFACE;
extern const char *const CLIENT_TIME_INTERFACE;

/* An audio output. Only the first output of each audio device has events, so only those are known.
 */
struct ClientOutput {
    gint32 output; /* the `audiooutput` of a play request, from 0 */
    gint32 device;
    gint32 device_output;
    bool playing;
    char *file_name;    /* owned; the current or last file, empty if there was none */
    guint64 file_since; /* when `file_name` was sent, on the monotonic clock in us; 0 if unknown */
    guint64 now;        /* the time on that clock when the daemon replied; 0 if unknown */
};

void client_output_free(ClientOutput *output);
G_DEFINE_AUTOPTR_CLEANUP_FUNC(ClientOutput, client_output_free)

/*
 * Returns the outputs, an array of owned ClientOutput sorted by `output`, or null with an error.
 * CLIENT_ERROR_NO_DAEMON can also mean that the platform publishes no event objects.
 */
GPtrArray *client_outputs_list(sd_bus *bus, GError **error);

/* Reads the reply of GetManagedObjects, for callers that do not wait for it in
 * client_outputs_list(). Returns the same, or null with CLIENT_ERROR_REPLY. */
GPtrArray *client_outputs_read(sd_bus_message *answer, GError **error);

/* The content of a playing event. */
struct ClientEvent {
    bool is_state; /* true: "Playing", which sets `playing`; false: "CurrentlyPlaying", which sets
                      `file_name` */
    gint32 output; /* this and the next two have the meaning that they have in ClientOutput */
    gint32 device;
    gint32 device_output;
    bool playing;
    const char *file_name; /* borrowed from the message */
};

/*
 * Reads an event into `event` from the a{sv} at the current position of `m`: the content of the
 * signal `Sent` or of the property `Keys`. Returns a positive number, or 0 if it is not a playing
 * event, or a negative errno value on failure.
 */
int client_event_read(sd_bus_message *m, ClientEvent *event);
