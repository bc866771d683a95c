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

/* Reads the a{sa{sv}} of an object's interfaces. */
int read_interfaces(sd_bus_message *m, GPtrArray *devices)
{
    return client_bus_read_dict(m, "sa{sv}", [m, devices] {
        const char *name = nullptr;
        int r = sd_bus_message_read(m, "s", &name);
        if (r < 0) {
            return r;
        }
        if (!g_str_equal(name, DEVICE_INTERFACE)) {
            return sd_bus_message_skip(m, "a{sv}");
        }
        g_autoptr(ClientDevice) device = g_new0(ClientDevice, 1);
        device->number = -1;
        r = read_device(m, device);
        /* Without a number and a name, a device cannot be chosen. */
        if (r >= 0 && device->number >= 0 && device->name && *device->name != '\0') {
            g_ptr_array_add(devices, g_steal_pointer(&device));
        }
        return r;
    });
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
