#include "bus_guard.h"

#include <cstring>

namespace
{

/* The limit of D-Bus for the name of an interface. */
constexpr size_t MAX_NAME = 255;

/*
 * GetAll is the only call whose error repeats a text of any length. The names of interfaces and
 * methods in a message's header, which other errors repeat, are short, and sd-bus drops messages
 * whose object path exceeds 64 KiB.
 */
int refuse_long_name(sd_bus_message *message, void *, sd_bus_error *error)
{
    const char *name = nullptr;
    if (!sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Properties", "GetAll") ||
        sd_bus_message_read(message, "s", &name) <= 0 || strlen(name) <= MAX_NAME) {
        const int r = sd_bus_message_rewind(message, 1);
        return r < 0 ? r : 0; /* sd-bus goes on with the message */
    }
    return sd_bus_error_set(error, SD_BUS_ERROR_UNKNOWN_INTERFACE, "Unknown interface.");
}

} // namespace

int bus_guard_setup(sd_bus *bus)
{
    return sd_bus_add_filter(bus, nullptr, refuse_long_name, nullptr);
}
