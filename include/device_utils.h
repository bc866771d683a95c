#pragma once

/*
 * Audio output selection: which outputs clips can be played on.
 *
 * The number of an audio output is the id of its device. A device is usable if its id is a decimal
 * number, it has outputs, and the id of its first output is a decimal number too. The other outputs
 * of a device are ignored. Call these operations on the main thread; each call queries the audio
 * device service.
 */

#include <glib.h>

/* Play requests can name the audio outputs 0 to DEVICE_UTILS_MAX_ID. */
inline constexpr gint32 DEVICE_UTILS_MAX_ID = 5;

/* Returns true if a play request can name an audio output with this number. */
constexpr bool device_utils_in_range(gint32 id)
{
    return id >= 0 && id <= DEVICE_UTILS_MAX_ID;
}

/* Receives a usable device: its id as the audio output number, its id, its first output's id. */
typedef void (*DeviceUtilsCallback)(gint32 audio_output, gint32 audio_device_id,
                                    gint32 audio_output_id);

/*
 * Calls `callback`, which may be null, once for each usable device, in the order of the audio
 * device service. Always returns false.
 */
bool device_utils_for_each_id(DeviceUtilsCallback callback);

/* Returns true if a usable device has this id. */
bool device_utils_valid_id(gint32 id);

/* Returns the lowest valid id from 0 to DEVICE_UTILS_MAX_ID, or -1 if there is none. */
gint32 device_utils_find_suitable_id();
