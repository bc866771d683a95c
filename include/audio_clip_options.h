#pragma once

/*
 * The options of a play request: one text written like an HTML form query, such as
 * "location=/etc/audioclips/door.wav&volume=50&repeat=2&audiooutput=1".
 */

#include <glib.h>

/*
 * Reads `options` into the variables that the other arguments point at. Returns false if a value is
 * invalid; some variables may have been written by then. Logs the reason, except for an invalid
 * device and output pair. Refuses a text of more than 65,536 bytes. Ignores unknown keys. Call it on
 * the main thread; it queries the audio device service.
 *
 * location         file path or wildcard path; a new string
 * volume           percent, 0 to 1000; 100 if not given
 * repeat           plays after the first; 0 if not given, -1 for endless
 * audio_output     0 to 5, or -1 if a device and one of its outputs are given instead
 * audio_device_id  device of that pair, else -1
 * audio_output_id  output of that pair, else -1
 * alsa_device      ALSA name of the output; a new string
 *
 * If the address of `audio_output`, `audio_device_id` or `audio_output_id` is null, the options
 * that choose an output are ignored, and none of these three nor `alsa_device` is written. Any
 * other null address makes the call return false.
 *
 * The caller initialises the variables, and frees `location` and `alsa_device` whatever the result.
 */
bool audio_clip_parse_options(const char *options, char **location, gint32 *volume, gint32 *repeat,
                              gint32 *audio_output, gint32 *audio_device_id,
                              gint32 *audio_output_id, char **alsa_device);

/*
 * Decodes the escapes of a form query in place: "+" becomes a space, and "%" with two hexadecimal
 * digits becomes the byte of that value. Any other "%" is copied. Does nothing for null.
 */
void audio_clip_option_unescape(char *text);
