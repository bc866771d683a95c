#include "device_utils.h"

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "platform/audio_devices.h"

namespace
{

/*
 * Reads a whole decimal number as strtol() does, which allows blanks and a sign in front of it.
 * Refuses a number beyond 32 bits: truncated, it would name another device.
 */
std::optional<gint32> read_id(const char *text)
{
    if (!text || *text == '\0') {
        return std::nullopt;
    }
    char *end = nullptr;
    errno = 0;
    const long id = strtol(text, &end, 10);
    if (*end != '\0' || errno != 0 || id < G_MININT32 || id > G_MAXINT32) {
        return std::nullopt;
    }
    return static_cast<gint32>(id);
}

/*
 * Calls `callback`, if any, for each usable device, and stops after the one with the wanted id.
 * Returns true if a device has the wanted id.
 */
bool device_utils_scan(DeviceUtilsCallback callback, std::optional<gint32> wanted_id)
{
    AudioDevice **devices = audio_devices_get(nullptr);
    if (!devices) {
        g_info("%sNo audio devices found", "");
        return false;
    }

    bool found = false;
    for (AudioDevice **device = devices; *device && !found; device++) {
        AudioOutput **outputs = (*device)->outputs;
        if (!outputs || !outputs[0]) {
            continue;
        }
        const auto device_id = read_id((*device)->id);
        const auto output_id = read_id(outputs[0]->id);
        if (!device_id || !output_id) {
            continue;
        }
        if (callback) {
            callback(*device_id, *device_id, *output_id);
        }
        found = wanted_id == device_id;
    }
    audio_devices_free(devices);
    return found;
}

} // namespace

bool device_utils_for_each_id(DeviceUtilsCallback callback)
{
    return device_utils_scan(callback, std::nullopt);
}

bool device_utils_valid_id(gint32 id)
{
    return device_utils_scan(nullptr, id);
}

gint32 device_utils_find_suitable_id()
{
    for (gint32 id = 0; id <= DEVICE_UTILS_MAX_ID; id++) {
        if (device_utils_valid_id(id)) {
            return id;
        }
    }
    return -1;
}
