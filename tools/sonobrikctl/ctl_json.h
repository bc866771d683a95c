#pragma once

/* Output in JSON. */

#include <glib.h>
#include <jansson.h>

/* Returns a new JSON number, or a new null if `number` is negative, which stands for unknown. */
json_t *ctl_json_number_or_null(gint64 number);

/* Prints `value` to standard output, in ASCII so that it cannot control a terminal. Prints a single
 * line unless `is_indented`. */
void ctl_json_print(const json_t *value, bool is_indented);
