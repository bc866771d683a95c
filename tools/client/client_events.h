#pragma once

/*
 * The audio outputs and what plays on them. No method of the daemon lists them; the stock platform
 * keeps an object on the bus for each event, which does. Another platform need not.
 */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

/* Where the stock platform's events are: bus name, object manager, and the interface of each. */
extern const char *const CLIENT_EVENTS_SERVICE;
extern const char *const CLIENT_EVENTS_OBJECT;
extern const char *const CLIENT_EVENT_INTERFACE;

/* The first output of an audio device: those are what has events. */
struct ClientOutput {
    gint32 output; /* as a request names it with `audiooutput`, from 0 */
    gint32 device;
    gint32 device_output;
    bool playing;
    char *file_name; /* owned; of what plays, or played last, empty if nothing did */
};

void client_output_free(ClientOutput *output);
G_DEFINE_AUTOPTR_CLEANUP_FUNC(ClientOutput, client_output_free)

/*
 * Returns the outputs, an array of owned ClientOutput sorted by `output`, or null with an error;
 * CLIENT_ERROR_NO_DAEMON also stands for a platform without such objects.
 */
GPtrArray *client_outputs_list(sd_bus *bus, GError **error);

/* What a playing event says. */
struct ClientEvent {
    bool is_state; /* "Playing", which carries `playing`; or "CurrentlyPlaying", `file_name` */
    gint32 output; /* as ClientOutput has them */
    gint32 device;
    gint32 device_output;
    bool playing;
    const char *file_name; /* borrowed from the message */
};

/*
 * Reads the a{sv} at which `m` stands, the content of the signal `Sent` or of the property `Keys`,
 * into `event`. False for one that is no playing event; a negative errno value if it is not
 * readable.
 */
int client_event_read(sd_bus_message *m, ClientEvent *event);
