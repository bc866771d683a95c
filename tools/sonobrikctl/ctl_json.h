#pragma once

/* JSON for programs. */

#include <glib.h>
#include <jansson.h>

/* Returns a new text. */
json_t *ctl_json_text(const char *text);

/* Returns a new number, or a new null for a negative one: that is not known. */
json_t *ctl_json_known(gint64 number);

/* Writes `value` to standard output, in plain ASCII, which no terminal mistakes; on one line unless
 * `is_indented`. */
void ctl_json_print(const json_t *value, bool is_indented);
