#pragma once

/*
 * Audio device service: which audio devices the machine has, and which outputs each of them.
 *
 * Both operations are called on the main thread. One play request may list the devices six times,
 * so a listing should be cheap while nothing has changed.
 */

#include <glib.h>

G_BEGIN_DECLS

struct AudioOutput {
    char *id; /* decimal number as text, unique within the device */
};

struct AudioDevice {
    char *id;                     /* decimal number as text, unique among the devices */
    struct AudioOutput **outputs; /* null-terminated; empty or null: the device plays nothing */
};

/*
 * Returns a new null-terminated array of the devices, in the service's order, or null when there
 * are none or they cannot be listed; free it with audio_devices_free(). `filter` is reserved for
 * platforms that can narrow the listing down; the daemon passes null, which lists every device.
 */
struct AudioDevice **audio_devices_get(const void *filter);

/* Frees an array of audio_devices_get() with all that it holds; null does nothing. */
void audio_devices_free(struct AudioDevice **devices);

G_END_DECLS
