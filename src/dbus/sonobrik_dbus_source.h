#pragma once

/* Runs an sd-event loop inside the GLib main loop. Main thread only. */

#include <glib.h>
#include <systemd/sd-event.h>

struct sonobrik_dbus_source {
    GSource source;
    GPollFD poll_fd;
    sd_event *event; /* owned */
};

/*
 * Returns a new source that runs `event`; release it with g_source_unref(). When the event loop has
 * ended or fails, the source calls its callback, if it has one, and removes itself from its
 * context.
 */
sonobrik_dbus_source *sonobrik_dbus_source_new(sd_event *event);
