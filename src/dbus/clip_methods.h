#pragma once

/*
 * The methods that deal with clip files, as handlers for sd-bus; `user_data` is not used. A call
 * that fails answers with the method's error name. Main thread only.
 */

#include <systemd/sd-bus.h>

/*
 * (s location, s name, s type) -> (i index): registers a file below /etc/audioclips as a clip of
 * the type "audio", announces it, and registers the on-screen controls anew, which may block for 25
 * s.
 */
int sonobrik_add_clip(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);

/*
 * () -> (s text): the metadata of all clips, see sonobrik_group_get_metadata(). May block for the
 * discoverer's time-out for each clip that is asked for the first time.
 */
int sonobrik_get_metadata(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);

/*
 * Method handler: takes a file path (s), answers "OK" (s) when its format can be played, or fails
 * with the method's error name and the reason. Inspects the file, so it may block for the
 * discoverer's time-out.
 */
int sonobrik_supported_file(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);
