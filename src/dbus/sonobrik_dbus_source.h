#pragma once

/* Drives an sd-event loop from the GLib main loop. Main thread only. */

#include <glib.h>
#include <systemd/sd-event.h>

struct sonobrik_dbus_source {
    GSource source;
    GPollFD poll_fd;
    sd_event *event; /* one reference owned by the source */
};

/*
 * Returns a new source that runs `event`, to be released with g_source_unref(). It removes itself
 * from its context when the event loop has ended.
 */
sonobrik_dbus_source *sonobrik_dbus_source_new(sd_event *event);
