#include "devices_listener.h"

#include <cerrno>

namespace
{

/* Without a slot, the match lives as long as the connection. */
int match_signal(sd_bus *bus, const char *member, sd_bus_message_handler_t callback)
{
    return sd_bus_match_signal(bus, nullptr, "com.vesk.AudioControl", "/com/vesk/AudioControl",
                               "org.freedesktop.DBus.ObjectManager", member, callback, nullptr);
}

} // namespace

int sonobrik_dbus_devices_listener(sonobrik_dbus *conn, sd_bus_message_handler_t callback)
{
    if (!conn) {
        return -EINVAL;
    }
    const int r = match_signal(conn->bus, "InterfacesAdded", callback);
    if (r < 0) {
        return r;
    }
    return match_signal(conn->bus, "InterfacesRemoved", callback);
}
