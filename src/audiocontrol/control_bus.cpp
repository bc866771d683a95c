#include "control_bus.h"

#include <algorithm>
#include <cerrno>
#include <glib.h>
#include <vector>

#include "autoptr.h"

namespace
{

constexpr const char *BUS_NAME = "com.vesk.AudioControl";
constexpr const char *DAEMON_NAME = "com.vesk.Sonobrik";
constexpr const char *MANAGER_PATH = "/com/vesk/AudioControl";
constexpr const char *DEVICE_INTERFACE = "com.vesk.AudioControl.Device";
constexpr const char *OUTPUTS_INTERFACE = "com.vesk.AudioControl.Outputs";

std::string make_path(int number)
{
    return std::string(MANAGER_PATH) + '/' + std::to_string(number);
}

/* Returns the device of an object path, or null. */
const Device *find_device(const ControlPicture &picture, std::string_view path)
{
    const auto found = std::ranges::find_if(
        picture.devices, [path](const Device &device) { return make_path(device.number) == path; });
    return found == picture.devices.end() ? nullptr : &*found;
}

/* sd-bus's handlers. They return 1 for an object that exists, and 0 for one that does not. */

int find_device_object(sd_bus *, const char *path, const char *, void *data, void **found,
                       sd_bus_error *)
{
    const Device *device = find_device(*static_cast<const ControlPicture *>(data), path);
    *found = data;
    return device != nullptr;
}

int find_outputs_object(sd_bus *, const char *path, const char *, void *data, void **found,
                        sd_bus_error *)
{
    const Device *device = find_device(*static_cast<const ControlPicture *>(data), path);
    *found = data;
    return device && device->plugged_in;
}

int list_objects(sd_bus *, const char *, void *data, char ***paths, sd_bus_error *)
{
    const auto *picture = static_cast<const ControlPicture *>(data);
    /* sd-bus frees the list with free(). */
    auto **list = static_cast<char **>(calloc(picture->devices.size() + 1, sizeof(char *)));
    if (!list) {
        return -ENOMEM;
    }
    char **next = list;
    for (const Device &device : picture->devices) {
        *next++ = strdup(make_path(device.number).c_str());
    }
    *paths = list;
    return 1;
}

/* The getters append the value of a property. */

using Getter = int (*)(sd_bus_message *reply, const ControlPicture &picture, const Device &device);

template <Getter getter>
int get_property(sd_bus *, const char *path, const char *, const char *, sd_bus_message *reply,
                 void *data, sd_bus_error *)
{
    const auto *picture = static_cast<const ControlPicture *>(data);
    const Device *device = find_device(*picture, path);
    return device ? getter(reply, *picture, *device) : -ENOENT;
}

template <std::string Device::*text>
int append_text(sd_bus_message *reply, const ControlPicture &, const Device &device)
{
    return sd_bus_message_append(reply, "s", (device.*text).c_str());
}

int append_number(sd_bus_message *reply, const ControlPicture &, const Device &device)
{
    return sd_bus_message_append(reply, "u", static_cast<unsigned>(device.number));
}

int append_plugged_in(sd_bus_message *reply, const ControlPicture &, const Device &device)
{
    return sd_bus_message_append(reply, "b", static_cast<int>(device.plugged_in));
}

int append_outputs(sd_bus_message *reply, const ControlPicture &picture, const Device &device)
{
    int r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "(usb)");
    for (size_t i = 0; r >= 0 && i < device.outputs.size(); i++) {
        const bool is_override = control_picture_is_override(picture, device.number, i);
        r = sd_bus_message_append(reply, "(usb)", static_cast<unsigned>(i),
                                  device.outputs[i].name.c_str(), static_cast<int>(is_override));
    }
    return r < 0 ? r : sd_bus_message_close_container(reply);
}

constexpr sd_bus_vtable DEVICE_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Number", "u", get_property<append_number>, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Name", "s", get_property<append_text<&Device::name>>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Serial", "s", get_property<append_text<&Device::serial>>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Path", "s", get_property<append_text<&Device::path>>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("CardId", "s", get_property<append_text<&Device::card_id>>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("PluggedIn", "b", get_property<append_plugged_in>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END,
};

constexpr sd_bus_vtable OUTPUTS_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Outputs", "a(usb)", get_property<append_outputs>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END,
};

void warn_of_signal(int r)
{
    if (r < 0) {
        g_warning("%sCannot send a signal: %s", "", g_strerror(-r));
    }
}

/* Returns true if the daemon must learn of the change, because it plays on other outputs then. */
bool has_other_outputs(const Device &before, const Device &after)
{
    return before.plugged_in != after.plugged_in || before.outputs.size() != after.outputs.size();
}

/* Returns the interfaces that `one` has and `other` does not, or whose outputs differ. Either may
 * be null. */
std::vector<const char *> list_interfaces(const Device *one, const Device *other)
{
    std::vector<const char *> names;
    if (one && !other) {
        names.push_back(DEVICE_INTERFACE);
    }
    if (one && one->plugged_in && (!other || has_other_outputs(*one, *other))) {
        names.push_back(OUTPUTS_INTERFACE);
    }
    return names;
}

void send_interfaces(sd_bus *bus, int number, std::vector<const char *> names,
                     int (*send)(sd_bus *bus, const char *path, char **interfaces))
{
    if (names.empty()) {
        return;
    }
    names.push_back(nullptr);
    warn_of_signal(send(bus, make_path(number).c_str(), const_cast<char **>(names.data())));
}

void send_removals(sd_bus *bus, const ControlPicture &before, const ControlPicture &after)
{
    for (const Device &device : before.devices) {
        const Device *next = device_table_find(after.devices, device.number);
        send_interfaces(bus, device.number, list_interfaces(&device, next),
                        sd_bus_emit_interfaces_removed_strv);
    }
}

void send_additions(sd_bus *bus, const ControlPicture &before, const ControlPicture &after)
{
    for (const Device &device : after.devices) {
        const Device *previous = device_table_find(before.devices, device.number);
        send_interfaces(bus, device.number, list_interfaces(&device, previous),
                        sd_bus_emit_interfaces_added_strv);
    }
}

void send_properties(sd_bus *bus, int number, const char *interface,
                     std::vector<const char *> names)
{
    if (names.empty()) {
        return;
    }
    names.push_back(nullptr);
    warn_of_signal(sd_bus_emit_properties_changed_strv(bus, make_path(number).c_str(), interface,
                                                       const_cast<char **>(names.data())));
}

std::vector<const char *> list_properties(const Device &before, const Device &after)
{
    constexpr struct {
        const char *name;
        std::string Device::*text;
    } texts[] = {
        {"Name", &Device::name},
        {"Serial", &Device::serial},
        {"Path", &Device::path},
        {"CardId", &Device::card_id},
    };
    std::vector<const char *> names;
    for (const auto &[name, text] : texts) {
        if (before.*text != after.*text) {
            names.push_back(name);
        }
    }
    if (before.plugged_in != after.plugged_in) {
        names.push_back("PluggedIn");
    }
    return names;
}

/* Returns true if the administrator defines other outputs of the device than before. */
bool has_other_overrides(const ControlPicture &before, const ControlPicture &after,
                         const Device &device)
{
    for (size_t i = 0; i < device.outputs.size(); i++) {
        if (control_picture_is_override(before, device.number, i) !=
            control_picture_is_override(after, device.number, i)) {
            return true;
        }
    }
    return false;
}

void send_changes(sd_bus *bus, const ControlPicture &before, const ControlPicture &after)
{
    for (const Device &device : after.devices) {
        const Device *previous = device_table_find(before.devices, device.number);
        if (!previous) {
            continue;
        }
        send_properties(bus, device.number, DEVICE_INTERFACE, list_properties(*previous, device));
        if (device.plugged_in && !has_other_outputs(*previous, device) &&
            (device.outputs != previous->outputs || has_other_overrides(before, after, device))) {
            send_properties(bus, device.number, OUTPUTS_INTERFACE, {"Outputs"});
        }
    }
}

} // namespace

int control_bus_publish(sd_bus *bus, ControlPicture *picture)
{
    int r = sd_bus_add_object_manager(bus, nullptr, MANAGER_PATH);
    if (r >= 0) {
        r = sd_bus_add_fallback_vtable(bus, nullptr, MANAGER_PATH, DEVICE_INTERFACE, DEVICE_VTABLE,
                                       find_device_object, picture);
    }
    if (r >= 0) {
        r = sd_bus_add_fallback_vtable(bus, nullptr, MANAGER_PATH, OUTPUTS_INTERFACE,
                                       OUTPUTS_VTABLE, find_outputs_object, picture);
    }
    return r < 0 ? r
                 : sd_bus_add_node_enumerator(bus, nullptr, MANAGER_PATH, list_objects, picture);
}

int control_bus_take_name(sd_bus *bus)
{
    return sd_bus_request_name(bus, BUS_NAME, 0);
}

bool control_bus_has_daemon(sd_bus *bus)
{
    return sd_bus_get_name_creds(bus, DAEMON_NAME, 0, nullptr) >= 0;
}

void control_bus_change(sd_bus *bus, ControlPicture *picture, ControlPicture next)
{
    std::swap(*picture, next);
    const ControlPicture &before = next;
    send_removals(bus, before, *picture);
    send_additions(bus, before, *picture);
    send_changes(bus, before, *picture);
}

bool control_picture_is_override(const ControlPicture &picture, int device, size_t output)
{
    const std::string number = std::to_string(device);
    return picture.overrides.contains("device" + number + "_output" + std::to_string(output)) ||
           (output == 0 && picture.overrides.contains("audiosink" + number));
}
