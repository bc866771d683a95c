#pragma once

/*
 * The options of a play request: one text written like an HTML form query, such as
 * "location=/etc/audioclips/door.wav&volume=50&repeat=2&audiooutput=1".
 */

#include <glib.h>

/*
 * Reads `options` into the variables that the other arguments point at. Returns false, with a log
 * line in most cases, when a value cannot be used; some variables may have been written by then.
 * Unknown keys are ignored. Called on the main thread; asks the audio device service.
 *
 * location         file path or wildcard path; a new string
 * volume           percent, 0 to 1000, 100 if not given
 * repeat           plays after the first: 0 if not given, -1 without end
 * audio_output     0 to 5, or -1 when a device and one of its outputs are named instead
 * audio_device_id  device of such a pair, else -1
 * audio_output_id  output of such a pair, else -1
 * alsa_device      ALSA name of the output; a new string
 *
 * A null address for any of `audio_output`, `audio_device_id` and `audio_output_id` says that the
 * output is not the caller's to choose: these and `alsa_device` are then left alone.
 *
 * The caller initialises the variables, and frees `location` and `alsa_device` whatever the result.
 */
bool audio_clip_parse_options(const char *options, char **location, gint32 *volume, gint32 *repeat,
                              gint32 *audio_output, gint32 *audio_device_id,
                              gint32 *audio_output_id, char **alsa_device);

/*
 * Undoes the escapes of a form query in place: "+" is a space, "%" and two hexadecimal digits are
 * the byte of that value; any other "%" stays. Null does nothing.
 */
void audio_clip_option_unescape(char *text);
