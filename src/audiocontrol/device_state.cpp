#include "device_state.h"

#include <algorithm>

#include "autoptr.h"
#include "control_text.h"

namespace
{

constexpr int VERSION = 1;

/* The members of a device that are texts, with their keys in the file. */
constexpr struct {
    const char *key;
    std::string Device::*text;
} TEXTS[] = {
    {"serial", &Device::serial},
    {"path", &Device::path},
    {"card", &Device::card_id},
    {"name", &Device::card_name},
};

json_t *format_device(const Device &device)
{
    json_t *object = json_object();
    json_object_set_new(object, "number", json_integer(device.number));
    for (const auto &[key, text] : TEXTS) {
        json_object_set_new(object, key, json_string((device.*text).c_str()));
    }
    json_object_set_new(object, "pluggedIn", json_boolean(device.plugged_in));
    return object;
}

bool read_device(const json_t *object, Device *device)
{
    const json_t *number = json_object_get(object, "number");
    if (!json_is_integer(number) || json_integer_value(number) < 0 ||
        json_integer_value(number) > CONTROL_CONF_MAX_NUMBER) {
        return false;
    }
    device->number = static_cast<int>(json_integer_value(number));
    for (const auto &[key, text] : TEXTS) {
        const char *value = json_string_value(json_object_get(object, key));
        if (!value || control_text_clean(value) != value) {
            return false;
        }
        device->*text = value;
    }
    device->name = device->card_name;
    device->plugged_in = json_is_true(json_object_get(object, "pluggedIn"));
    device->card_index = -1;
    return true;
}

bool read_devices(const json_t *array, DeviceTable *table)
{
    size_t i;
    const json_t *object;
    if (!json_is_array(array) || json_array_size(array) > DEVICE_TABLE_MAX_DEVICES) {
        return false;
    }
    json_array_foreach(array, i, object)
    {
        Device device = {};
        if (!read_device(object, &device) || device_table_find(*table, device.number)) {
            return false;
        }
        table->push_back(std::move(device));
    }
    std::ranges::sort(*table, {}, &Device::number);
    return true;
}

} // namespace

std::string device_state_format(const DeviceTable &table)
{
    g_autoptr(json_t) root = json_object();
    json_t *devices = json_array();
    for (const Device &device : table) {
        json_array_append_new(devices, format_device(device));
    }
    json_object_set_new(root, "version", json_integer(VERSION));
    json_object_set_new(root, "devices", devices);
    g_auto(JsonText) text = json_dumps(root, JSON_INDENT(2));
    return text ? std::string(text) + '\n' : "";
}

bool device_state_parse(std::string_view text, DeviceTable *table, std::string *reason)
{
    table->clear();
    json_error_t error = {};
    g_autoptr(json_t) root = json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error);
    if (!root) {
        *reason = "line " + std::to_string(error.line) + ": " + error.text;
        return false;
    }
    if (json_integer_value(json_object_get(root, "version")) != VERSION ||
        !read_devices(json_object_get(root, "devices"), table)) {
        table->clear();
        *reason = "it does not describe devices";
        return false;
    }
    return true;
}
