#include "bus_guard.h"

#include <cstring>
#include <glib.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "autoptr.h"

namespace
{

/* The limit of D-Bus for the name of an interface. */
constexpr size_t MAX_NAME = 255;

/* For how long a bus that does not read is waited for. */
constexpr gint64 FLUSH_USEC = 1'000'000;

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

guint watch_msec = 15'000;

/* One tick is not enough: the bus may be busy with other clients. */
constexpr unsigned MAX_MISSED = 2;

/* 5 minutes. A client that never stops calling must not hide the silence. */
constexpr unsigned MAX_TICKS = 20;

/* Returns true if messages wait to be read; the answer may be among them after a slow handler. */
bool has_input(sd_bus *bus)
{
    uint64_t count = 0;
    pollfd input = {.fd = sd_bus_get_fd(bus), .events = POLLIN, .revents = 0};
    return (sd_bus_get_n_queued_read(bus, &count) >= 0 && count > 0) || poll(&input, 1, 0) > 0;
}

/* Returns true if the bus has read everything that was sent to it. */
bool has_read_all(sd_bus *bus)
{
    uint64_t count = 0;
    int unread = 0;
    return sd_bus_get_n_queued_write(bus, &count) >= 0 && count == 0 &&
           ioctl(sd_bus_get_fd(bus), SIOCOUTQ, &unread) == 0 && unread == 0;
}

int on_answer(sd_bus_message *, void *user_data, sd_bus_error *)
{
    auto *watch = static_cast<BusWatch *>(user_data);
    bus_watch_teardown(watch);
    return 0;
}

void ask(BusWatch *watch)
{
    g_autoptr(sd_bus_message) call = nullptr;
    if (sd_bus_message_new_method_call(watch->bus, &call, "org.freedesktop.DBus",
                                       "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                       "GetId") >= 0) {
        /* No time-out: after a slow handler, it would be noticed before the answer is read. */
        sd_bus_call_async(watch->bus, &watch->question, call, on_answer, watch, UINT64_MAX);
    }
}

gboolean on_tick(gpointer user_data)
{
    auto *watch = static_cast<BusWatch *>(user_data);
    if (!watch->question) {
        ask(watch);
        return G_SOURCE_CONTINUE;
    }
    if (has_read_all(watch->bus)) {
        /* The answer may be behind many calls, and the bus drops it if too many wait already. */
        bus_watch_teardown(watch);
        return G_SOURCE_REMOVE;
    }
    watch->ticks++;
    if (!has_input(watch->bus)) {
        watch->missed++;
    }
    if (watch->missed < MAX_MISSED && watch->ticks < MAX_TICKS) {
        return G_SOURCE_CONTINUE;
    }
    watch->timer = 0;
    watch->on_silence(watch->user_data);
    return G_SOURCE_REMOVE;
}

/*
 * Every call may be answered, and unread answers of one client can stop the bus from reading those
 * to all others. Signals are not answered.
 */
int start_timer(sd_bus_message *message, void *user_data, sd_bus_error *)
{
    auto *watch = static_cast<BusWatch *>(user_data);
    if (watch->timer == 0 && sd_bus_message_is_method_call(message, nullptr, nullptr) > 0) {
        watch->timer = g_timeout_add(watch_msec, on_tick, watch);
    }
    return 0;
}

} // namespace

int bus_guard_setup(sd_bus *bus)
{
    return sd_bus_add_filter(bus, nullptr, refuse_long_name, nullptr);
}

void bus_guard_flush(sd_bus *bus)
{
    if (!bus || !has_queued(bus)) {
        return;
    }
    const gint64 deadline = g_get_monotonic_time() + FLUSH_USEC;
    /* sd_bus_process() also reads. The filter that was added last runs first. */
    int r = sd_bus_add_filter(bus, nullptr, drop, nullptr);
    while (r >= 0 && has_queued(bus)) {
        const gint64 left = deadline - g_get_monotonic_time();
        if (left <= 0) {
            break;
        }
        r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            r = sd_bus_wait(bus, static_cast<uint64_t>(left));
        }
    }
    if (has_queued(bus)) {
        sd_bus_close(bus);
    }
}

int bus_watch_setup(BusWatch *watch)
{
    return sd_bus_add_filter(watch->bus, nullptr, start_timer, watch);
}

void bus_watch_teardown(BusWatch *watch)
{
    if (watch->timer != 0) {
        g_source_remove(watch->timer);
        watch->timer = 0;
    }
    if (watch->question) {
        sd_bus_slot_unref(g_steal_pointer(&watch->question));
    }
    watch->ticks = 0;
    watch->missed = 0;
}

void bus_watch_set_interval(guint msec)
{
    watch_msec = msec;
}
