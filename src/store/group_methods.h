#pragma once

/*
 * The methods of the legacy configuration interface, as handlers for sd-bus; `user_data` is not
 * used. A call that fails answers with the method's error name and an empty text. Main thread only.
 */

#include <systemd/sd-bus.h>

/* (i index, -1 for the lowest that is free) -> (i new index): adds an empty record. */
int sonobrik_group_add_configuration(sd_bus_message *message, void *user_data,
                                     sd_bus_error *ret_error);

/* (i index) -> (): removes a record. */
int sonobrik_group_remove_configuration(sd_bus_message *message, void *user_data,
                                        sd_bus_error *ret_error);

/* (i index, s property) -> (s property, v value): reads a property. */
int sonobrik_group_get_configuration(sd_bus_message *message, void *user_data,
                                     sd_bus_error *ret_error);

/*
 * (i index, s property, v value) -> (): changes "Name", the one property that may be changed; the
 * value holds the bytes (ay) of the text, at most 255, or counts as empty.
 */
int sonobrik_group_set_configuration(sd_bus_message *message, void *user_data,
                                     sd_bus_error *ret_error);

/* () -> (a{ia{sv}}): all records with their properties; fails while there are none. */
int sonobrik_group_get_configurations(sd_bus_message *message, void *user_data,
                                      sd_bus_error *ret_error);

/* () -> (): registers the on-screen controls anew, with the records as they are; always succeeds.
 */
int sonobrik_group_sync(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);
