#include "mqtt_memory.h"

#include <algorithm>

bool mqtt_memory_has(const MqttMemory &memory, const std::string &id, gint64 now)
{
    /* The time of an entry can be in the future, for example if the clock was set back. */
    return std::ranges::any_of(memory.entries, [&id, now](const MqttMemoryEntry &entry) {
        return entry.id == id && now - entry.time < MQTT_MEMORY_TIME;
    });
}

void mqtt_memory_add(MqttMemory *memory, const std::string &id, gint64 time)
{
    while (memory->entries.size() >= MQTT_MEMORY_SIZE) {
        memory->entries.pop_front();
    }
    memory->entries.push_back({.id = id, .time = time});
}
