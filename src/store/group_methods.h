#pragma once

/*
 * The methods of "com.vesk.Configuration.Legacy" as sd-bus handlers, and their table. The user data
 * is not used. A call that fails is answered with the method's error name and an empty text. Main
 * thread only.
 */

#include <systemd/sd-bus.h>

extern const sd_bus_vtable group_method_table[];

/* (i index, -1 for the lowest free one) -> (i new index): adds an empty record. */
int sonobrik_group_add_configuration(sd_bus_message *message, void *user_data,
                                     sd_bus_error *ret_error);

/* (i index) -> (): removes a record. */
int sonobrik_group_remove_configuration(sd_bus_message *message, void *user_data,
                                        sd_bus_error *ret_error);

/* (i index, s property) -> (s property, v value): reads a property. */
int sonobrik_group_get_configuration(sd_bus_message *message, void *user_data,
                                     sd_bus_error *ret_error);

/*
 * (i index, s property, v value) -> (): changes the property "Name"; the others cannot be changed.
 * The value is an array of at most 255 bytes (ay); a value of another type counts as empty.
 */
int sonobrik_group_set_configuration(sd_bus_message *message, void *user_data,
                                     sd_bus_error *ret_error);

/* () -> (a{ia{sv}}): returns all records with their properties; fails if there are none. */
int sonobrik_group_get_configurations(sd_bus_message *message, void *user_data,
                                      sd_bus_error *ret_error);

/* () -> (): updates the on-screen controls with the stored records; always succeeds. */
int sonobrik_group_sync(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);
