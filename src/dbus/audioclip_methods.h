#pragma once

/*
 * The methods of "com.vesk.Sonobrik" as sd-bus handlers, and their table. The user data of each
 * is the AudioClip. A call that fails is answered with the method's full name as the error name.
 * Main thread only.
 */

#include <systemd/sd-bus.h>

extern const sd_bus_vtable audioclip_method_table[];

/*
 * (s location, s name, s type) -> (i index): adds a clip record, announces it and updates the
 * on-screen controls. `location` must begin with "/etc/audioclips", and `type` must be "audio".
 * Updating the on-screen controls may block for 25 s.
 */
int sonobrik_add_clip(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);

/*
 * () -> (s text): returns the metadata of all clips, see sonobrik_group_get_metadata(). Probes each
 * clip that has none yet, which may block for the discoverer's time-out each.
 */
int sonobrik_get_metadata(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);

/* (s options) -> (s "OK"): starts a clip and answers at once. */
int sonobrik_play_clip_asynchronous(sd_bus_message *message, void *user_data,
                                    sd_bus_error *ret_error);

/*
 * (s options) -> (s "OK"): starts a clip and answers when the request has ended. While another
 * PlayClip's clip plays, answers "OK" at once and plays nothing.
 */
int sonobrik_play_clip_synchronous(sd_bus_message *message, void *user_data,
                                   sd_bus_error *ret_error);

/* (s options) -> (s "OK"): stops the request that plays, if any. The options are ignored. */
int sonobrik_stop_clip(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);

/*
 * (s path) -> (s "OK"): checks that the format of the file can be played; the error text says why
 * not. Probes the file, which may block for the discoverer's time-out.
 */
int sonobrik_supported_file(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);
