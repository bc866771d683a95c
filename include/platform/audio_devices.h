#pragma once

/*
 * Audio device service: lists the audio devices of the machine and their outputs.
 *
 * Both operations run on the main thread. One play request may list the devices up to six times, so
 * make a repeated listing cheap.
 */

#include <glib.h>

G_BEGIN_DECLS

struct AudioOutput {
    char *id; /* decimal number as text, unique within the device */
};

struct AudioDevice {
    char *id; /* decimal number as text, unique among the devices */
    struct AudioOutput *
        *outputs; /* null-terminated; if empty or null, the daemon skips the device */
};

/*
 * Returns a new null-terminated array of the devices, or null if there are none or if they cannot
 * be listed. The daemon keeps the order of the array. The caller frees it with
 * audio_devices_free().
 *
 * `filter` is reserved for platforms that can list only some of the devices. The daemon always
 * passes null, which lists all of them.
 */
struct AudioDevice **audio_devices_get(const void *filter);

/* Frees an array that audio_devices_get() returned, and everything in it. Ignores null. */
void audio_devices_free(struct AudioDevice **devices);

G_END_DECLS
