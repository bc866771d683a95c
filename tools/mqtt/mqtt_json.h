#pragma once

/* Small helpers around Jansson. */

#include <glib.h>
#include <jansson.h>
#include <string>

/* Reads an integer, or a real number without a fraction, as some programs write integers. Returns
 * false for anything else. */
bool mqtt_json_read_integer(const json_t *value, gint64 *number);

/* Returns `value` as compact JSON, and frees it. Returns an empty text on allocation failure. */
std::string mqtt_json_write(json_t *value);

/* Returns the text at `key`, or an empty one. */
std::string mqtt_json_get_text(const json_t *object, const char *key);

/* Returns the integer at `key`, or `fallback`. */
gint64 mqtt_json_get_integer(const json_t *object, const char *key, gint64 fallback);

/* Returns a JSON text; bytes that are not UTF-8 become U+FFFD, which Jansson would refuse. */
json_t *mqtt_json_text(const std::string &text);
