#pragma once

/* The identifiers of the commands that were received, so that each of them plays only once. */

#include <deque>
#include <glib.h>
#include <string>

/* How many identifiers are kept, and for how long. The limits are sufficient: the broker only
 * repeats what it has just sent, and the longest grace time is an hour too. */
constexpr size_t MQTT_MEMORY_SIZE = 256;
constexpr gint64 MQTT_MEMORY_TIME = 3'600'000; /* milliseconds */

struct MqttMemoryEntry {
    std::string id;
    gint64 time; /* its own time, or that at which it was received; Unix time in milliseconds */
};

struct MqttMemory {
    std::deque<MqttMemoryEntry> entries; /* the oldest first */
};

/* Returns true if `id` was added with a time after `now` minus MQTT_MEMORY_TIME and is not
 * forgotten.
 */
bool mqtt_memory_has(const MqttMemory &memory, const std::string &id, gint64 now);

/* Adds `id`, and forgets the oldest one if there is no room. */
void mqtt_memory_add(MqttMemory *memory, const std::string &id, gint64 time);
