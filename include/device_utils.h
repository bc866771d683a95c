#pragma once

/*
 * Audio output selection: which outputs clips can be played on.
 *
 * An audio output is named by the number of its device. A device is usable when its id is a decimal
 * number and it has outputs, of which the first has a decimal number for an id too; the other
 * outputs are never looked at. Called on the main thread; each call asks the audio device service.
 */

#include <glib.h>

/* Audio outputs that a play request can name go from 0 to this one. */
inline constexpr gint32 DEVICE_UTILS_MAX_ID = 5;

/* Receives a usable device: its id as the audio output number, its id, its first output's id. */
typedef void (*DeviceUtilsCallback)(gint32 audio_output, gint32 audio_device_id,
                                    gint32 audio_output_id);

/*
 * Calls `callback`, which may be null, once for each usable device, in the order of the audio
 * device service. Always returns false.
 */
bool device_utils_for_each_id(DeviceUtilsCallback callback);

/* Is there a usable device with this id? */
bool device_utils_valid_id(gint32 id);

/* Returns the lowest id from 0 to DEVICE_UTILS_MAX_ID that is valid, or -1. */
gint32 device_utils_find_suitable_id();
