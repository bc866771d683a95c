#pragma once

/* One audio output, as requests and playing-status events name it. */

#include <glib.h>

struct AudioOutputIds {
    gint32 audio_output;    /* number; -1 if the two ids below name the output */
    gint32 audio_device_id; /* id of the device, or -1 */
    gint32 audio_output_id; /* id of the output on that device, or -1 */
};
