#include "client_devices.h"

#include "autoptr.h"
#include "client_bus.h"

const char *const CLIENT_DEVICES_SERVICE = "com.vesk.AudioControl";

namespace
{

constexpr ClientInterface DEVICES = {
    .service = "com.vesk.AudioControl",
    .object = "/com/vesk/AudioControl",
    .interface = "org.freedesktop.DBus.ObjectManager",
};

constexpr const char *DEVICE_INTERFACE = "com.vesk.AudioControl.Device";
constexpr const char *OUTPUTS_INTERFACE = "com.vesk.AudioControl.Outputs";

/* Reads the a{sv} of a device's properties. */
int read_device(sd_bus_message *m, ClientDevice *device)
{
    return client_bus_read_properties(m, [m, device](const char *name, const char *type) {
        int r = 0;
        if (g_str_equal(name, "Number") && g_str_equal(type, "u")) {
            guint32 number = 0;
            r = sd_bus_message_read(m, "v", "u", &number);
            device->number = number <= G_MAXINT32 ? static_cast<gint32>(number) : -1;
        } else if (g_str_equal(name, "Name") && g_str_equal(type, "s")) {
            const char *text = nullptr;
            r = sd_bus_message_read(m, "v", "s", &text);
            g_free(device->name);
            device->name = g_strdup(text);
        } else if (g_str_equal(name, "PluggedIn") && g_str_equal(type, "b")) {
            int plugged_in = 0;
            r = sd_bus_message_read(m, "v", "b", &plugged_in);
            device->plugged_in = plugged_in != 0;
        }
        return r;
    });
}

/* Reads the variant "Outputs", an a(usb): number and name of each output, and whether the
 * administrator defines it. */
int read_outputs(sd_bus_message *m, ClientDevice *device)
{
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "a(usb)");
    if (r >= 0) {
        r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "(usb)");
    }
    guint32 number = 0;
    const char *name = nullptr;
    int is_override = 0;
    while (r >= 0 && (r = sd_bus_message_read(m, "(usb)", &number, &name, &is_override)) > 0) {
        device->is_override = device->is_override || (number == 0 && is_override != 0);
    }
    if (r >= 0) {
        r = sd_bus_message_exit_container(m);
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

/* Reads the a{sv} of one of an object's interfaces. */
int read_interface(sd_bus_message *m, const char *interface, ClientDevice *device)
{
    if (g_str_equal(interface, DEVICE_INTERFACE)) {
        return read_device(m, device);
    }
    if (!g_str_equal(interface, OUTPUTS_INTERFACE)) {
        return sd_bus_message_skip(m, "a{sv}");
    }
    return client_bus_read_properties(m, [m, device](const char *name, const char *type) {
        const bool is_known = g_str_equal(name, "Outputs") && g_str_equal(type, "a(usb)");
        return is_known ? read_outputs(m, device) : 0;
    });
}

/* Reads the a{sa{sv}} of an object's interfaces. */
int read_interfaces(sd_bus_message *m, GPtrArray *devices)
{
    g_autoptr(ClientDevice) device = g_new0(ClientDevice, 1);
    device->number = -1;
    const int r = client_bus_read_dict(m, "sa{sv}", [m, &device] {
        const char *name = nullptr;
        const int status = sd_bus_message_read(m, "s", &name);
        return status < 0 ? status : read_interface(m, name, device);
    });
    /* Without a number and a name, a device cannot be chosen. */
    if (r >= 0 && device->number >= 0 && device->name && *device->name != '\0') {
        g_ptr_array_add(devices, g_steal_pointer(&device));
    }
    return r;
}

/* Reads the a{oa{sa{sv}}} of all objects. */
int read_objects(sd_bus_message *m, GPtrArray *devices)
{
    return client_bus_read_dict(m, "oa{sa{sv}}", [m, devices] {
        const int r = sd_bus_message_skip(m, "o");
        return r < 0 ? r : read_interfaces(m, devices);
    });
}

void free_device(void *device)
{
    client_device_free(static_cast<ClientDevice *>(device));
}

int compare_devices(const void *a, const void *b)
{
    const auto *first = *static_cast<const ClientDevice *const *>(a);
    const auto *second = *static_cast<const ClientDevice *const *>(b);
    return first->number < second->number ? -1 : first->number > second->number;
}

} // namespace

void client_device_free(ClientDevice *device)
{
    if (!device) {
        return;
    }
    g_free(device->name);
    g_free(device);
}

GPtrArray *client_devices_list(sd_bus *bus, GError **error)
{
    sd_bus_message *call = client_bus_new_call(bus, &DEVICES, "GetManagedObjects", error, nullptr);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, error);
    if (!answer) {
        return nullptr;
    }
    g_autoptr(GPtrArray) devices = g_ptr_array_new_with_free_func(free_device);
    const int r = read_objects(answer, devices);
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_REPLY, "%s", g_strerror(-r));
        return nullptr;
    }
    g_ptr_array_sort(devices, compare_devices);
    return g_steal_pointer(&devices);
}

const ClientDevice *client_devices_get(const GPtrArray *devices, gint32 number)
{
    for (guint i = 0; devices && i < devices->len; i++) {
        const auto *device = static_cast<const ClientDevice *>(g_ptr_array_index(devices, i));
        if (device->number == number) {
            return device;
        }
    }
    return nullptr;
}

const char *client_devices_get_name(const GPtrArray *devices, gint32 output)
{
    const ClientDevice *device = client_devices_get(devices, output);
    /* The daemon has no output for a device that is not plugged in, unless somebody else defines
     * it. */
    return device && device->plugged_in && !device->is_override ? device->name : nullptr;
}
