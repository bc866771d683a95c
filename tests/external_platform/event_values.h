#pragma once

/* The values of an event's keys by the keys' names: what templates and events are made of. */

#include <glib.h>
#include <stdbool.h>

#include "platform/event_service.h"

/* Returns an empty table; free it with g_hash_table_unref(). */
GHashTable *event_values_new(void);

/* A table of its own with the same keys and values. */
GHashTable *event_values_copy(GHashTable *values);

/* Adds a key; a null `value` is 0, false or "". False if the key is there already. */
bool event_values_add(GHashTable *values, const char *key, const void *value,
                      enum EventValueType type);

/* False if there is no such key. */
bool event_values_set(GHashTable *values, const char *key, const void *value);

/* All keys with their values, "key=value" in the order of the names, as a new string. */
char *event_values_print(GHashTable *values);
