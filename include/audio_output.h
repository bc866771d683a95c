#pragma once

/* One audio output, as requests and playing-status events name it. */

#include <glib.h>

struct AudioOutput {
    gint32 audio_output;    /* its number, 0 to DEVICE_UTILS_MAX_ID, or -1: see the pair below */
    gint32 audio_device_id; /* the number of its device, or -1 */
    gint32 audio_output_id; /* its number on that device, or -1 */
};
