#pragma once

/* A table of an event's keys and their values. Templates and events contain one. */

#include <glib.h>
#include <stdbool.h>

#include "platform/event_service.h"

/* Returns an empty table; free it with g_hash_table_unref(). */
GHashTable *event_values_new(void);

/* Returns a copy of the table; free it with g_hash_table_unref(). */
GHashTable *event_values_copy(GHashTable *values);

/* Adds a key; a null `value` means 0, false or "". Returns false if the table has the key. */
bool event_values_add(GHashTable *values, const char *key, const void *value,
                      enum EventValueType type);

/* Sets the value of a key. Returns false if the table does not have the key. */
bool event_values_set(GHashTable *values, const char *key, const void *value);

/* Returns all keys as "key=value", sorted by name, as a new string; free it with g_free(). */
char *event_values_print(GHashTable *values);
