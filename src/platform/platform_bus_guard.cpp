#include "platform_bus_guard.h"

#include <cerrno>
#include <cstring>
#include <glib.h>

/* The daemon has the same in bus_guard.cpp, which the platform must not use. */

namespace
{

/* The limit of D-Bus for the name of an interface. */
constexpr size_t MAX_NAME = 255;

/* For how long a bus that does not read is waited for. */
constexpr gint64 SEND_USEC = 1'000'000;

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

/* Keeps the methods from running, whose modules may be torn down already. */
int drop(sd_bus_message *, void *, sd_bus_error *)
{
    return 1;
}

bool has_queued(sd_bus *bus)
{
    uint64_t count = 0;
    return sd_bus_is_open(bus) > 0 && sd_bus_get_n_queued_write(bus, &count) >= 0 && count > 0;
}

} // namespace

int platform_bus_guard_setup(sd_bus *bus)
{
    return sd_bus_add_filter(bus, nullptr, refuse_long_name, nullptr);
}

void platform_bus_guard_flush(sd_bus *bus)
{
    if (!bus || !has_queued(bus)) {
        return;
    }
    /* The filter that was added last runs first. */
    if (sd_bus_add_filter(bus, nullptr, drop, nullptr) >= 0) {
        platform_bus_guard_send(bus);
    }
    if (has_queued(bus)) {
        sd_bus_close(bus);
    }
}

int platform_bus_guard_send(sd_bus *bus)
{
    const gint64 deadline = g_get_monotonic_time() + SEND_USEC;
    int r = 0;
    while (r >= 0 && has_queued(bus)) {
        const gint64 left = deadline - g_get_monotonic_time();
        if (left <= 0) {
            return -ETIMEDOUT;
        }
        r = sd_bus_process(bus, nullptr); /* also reads */
        if (r == 0) {
            r = sd_bus_wait(bus, static_cast<uint64_t>(left));
        }
    }
    return r < 0 ? r : 0;
}
