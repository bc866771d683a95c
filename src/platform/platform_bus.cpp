#include "platform_bus.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform_bus_guard.h"
#include "platform_error.h"

namespace
{

uint64_t timeout_usec = UINT64_C(5000) * 1000;

/* The most messages handled per turn of the loop. Other sources must run while a peer floods us. */
constexpr unsigned MESSAGES_PER_TURN = 64;

/* The default of libsystemd, which libsystemd does not make public. */
constexpr const char *SYSTEM_BUS_ADDRESS = "unix:path=/run/dbus/system_bus_socket";

struct Connection {
    const char *owner; /* for the log */
    sd_bus *bus;       /* one reference; null if there is no connection */
    GSource *source;
    unsigned holders;
};

struct BusSource {
    GSource base;
    Connection *connection;
    sd_bus *bus; /* one reference */
    GPollFD poll;
};

Connection shared = {.owner = "platform", .bus = nullptr, .source = nullptr, .holders = 0};

/* Exports nothing, so that strangers cannot delay its replies by calls. */
Connection lookup = {.owner = "access policy", .bus = nullptr, .source = nullptr, .holders = 0};

/*
 * Returns true if sd-bus has work that poll() does not show: a call that has timed out, or messages
 * that a synchronous call queued while it waited for its own reply. Otherwise stores in
 * `*timeout_ms` when there will be such work, or -1 for never.
 */
bool is_due(sd_bus *bus, gint *timeout_ms)
{
    uint64_t due = UINT64_MAX;
    if (sd_bus_get_timeout(bus, &due) < 0) {
        return true; /* closed; dispatch will find that out */
    }
    *timeout_ms = -1;
    if (due == UINT64_MAX) {
        return false;
    }
    const auto now = static_cast<uint64_t>(g_get_monotonic_time());
    if (due <= now) {
        *timeout_ms = 0;
        return true;
    }
    *timeout_ms = static_cast<gint>(std::min<uint64_t>((due - now + 999) / 1000, G_MAXINT));
    return false;
}

/*
 * Prepare and check share no state but the events to poll for, which each prepare sets again. GLib
 * does not always call check after prepare: if another thread adds or removes a source, it calls
 * prepare again.
 */
gboolean bus_source_prepare(GSource *base, gint *timeout_ms)
{
    auto *source = reinterpret_cast<BusSource *>(base);
    const int events = sd_bus_get_events(source->bus);
    source->poll.events = static_cast<gushort>(std::max(events, 0));
    return is_due(source->bus, timeout_ms);
}

gboolean bus_source_check(GSource *base)
{
    auto *source = reinterpret_cast<BusSource *>(base);
    gint timeout_ms = -1;
    return source->poll.revents != 0 || is_due(source->bus, &timeout_ms);
}

/* Closes the connection. Its holders still have valid references to it. */
void drop(Connection *connection)
{
    g_source_destroy(connection->source);
    g_source_unref(connection->source);
    /* Queued messages hold references, so unref alone may not close it. */
    sd_bus_close(connection->bus);
    sd_bus_unref(connection->bus);
    *connection = {.owner = connection->owner, .bus = nullptr, .source = nullptr, .holders = 0};
}

/* Logs that the connection was lost, and closes it. */
void lose(Connection *connection, int reason)
{
    g_warning("%sThe %s's connection to the system bus was lost: %s.", "", connection->owner,
              g_strerror(reason));
    drop(connection);
}

gboolean bus_source_dispatch(GSource *base, GSourceFunc, gpointer)
{
    auto *source = reinterpret_cast<BusSource *>(base);
    int r = 1;
    for (unsigned i = 0; r > 0 && i < MESSAGES_PER_TURN; i++) {
        r = sd_bus_process(source->bus, nullptr);
        if (g_source_is_destroyed(base)) { /* a callback released the connection */
            return G_SOURCE_REMOVE;
        }
    }
    if (r < 0) {
        lose(source->connection, -r);
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

void bus_source_finalize(GSource *base)
{
    auto *source = reinterpret_cast<BusSource *>(base);
    sd_bus_unref(source->bus);
}

GSourceFuncs bus_source_functions = {
    bus_source_prepare,  bus_source_check, bus_source_dispatch,
    bus_source_finalize, nullptr,          nullptr,
};

GSource *bus_source_new(Connection *connection, sd_bus *bus)
{
    GSource *base = g_source_new(&bus_source_functions, sizeof(BusSource));
    auto *source = reinterpret_cast<BusSource *>(base);
    source->connection = connection;
    source->bus = sd_bus_ref(bus);
    source->poll.fd = sd_bus_get_fd(bus);
    g_source_add_poll(base, &source->poll);
    return base;
}

/*
 * Starts a connection to the system bus. Unlike sd_bus_open_system(), it accepts no file
 * descriptors: the bus then refuses messages that carry some, so nobody can use up ours.
 */
int start_connection(sd_bus **bus)
{
    const char *address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    int r = sd_bus_new(bus);
    if (r < 0 || (r = sd_bus_set_address(*bus, address ? address : SYSTEM_BUS_ADDRESS)) < 0 ||
        (r = sd_bus_set_bus_client(*bus, true)) < 0 ||
        (r = sd_bus_negotiate_fds(*bus, false)) < 0) {
        return r;
    }
    return sd_bus_start(*bus);
}

/*
 * Waits until the connection is ready for use. sd_bus_start() only starts the authentication, and a
 * bus that hangs never finishes it. Returns a negative errno on failure.
 */
int wait_until_ready(sd_bus *bus)
{
    const gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(timeout_usec);
    int r = 0;
    while ((r = sd_bus_is_ready(bus)) == 0) {
        r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            const gint64 left = deadline - g_get_monotonic_time();
            r = left > 0 ? sd_bus_wait(bus, static_cast<uint64_t>(left)) : -ETIMEDOUT;
        }
        if (r < 0) {
            break;
        }
    }
    return r;
}

void set_unreachable(GError **error, int r)
{
    g_set_error(error, PLATFORM_ERROR, -r, "The system bus cannot be reached: %s", g_strerror(-r));
}

/* Starts the connection and serves it from the main loop. Does not wait for the bus. */
bool start(Connection *connection, GError **error)
{
    sd_bus *bus = nullptr;
    int r = start_connection(&bus);
    if (r >= 0) {
        r = sd_bus_set_method_call_timeout(bus, timeout_usec);
    }
    if (r >= 0) {
        r = platform_bus_guard_setup(bus);
    }
    if (r < 0) {
        set_unreachable(error, r);
        sd_bus_close_unref(bus);
        return false;
    }
    connection->bus = bus;
    connection->source = bus_source_new(connection, bus);
    g_source_attach(connection->source, nullptr);
    return true;
}

/* Makes `*bus` the connection, which is held for the caller and may not be ready yet. */
bool hold_started(Connection *connection, sd_bus **bus, GError **error)
{
    if (platform_bus_is_open(*bus)) {
        return true;
    }
    platform_bus_release(g_steal_pointer(bus));
    if (connection->bus && !platform_bus_is_open(connection->bus)) {
        lose(connection, ECONNRESET);
    }
    if (!connection->bus && !start(connection, error)) {
        return false;
    }
    connection->holders++;
    *bus = sd_bus_ref(connection->bus);
    return true;
}

bool hold(Connection *connection, sd_bus **bus, GError **error)
{
    if (!hold_started(connection, bus, error)) {
        return false;
    }
    const int r = wait_until_ready(*bus);
    if (r < 0) {
        set_unreachable(error, r);
        drop(connection);
        *bus = sd_bus_unref(*bus);
    }
    return r >= 0;
}

void release(Connection *connection)
{
    if (--connection->holders > 0) {
        return;
    }
    if (platform_bus_is_open(connection->bus)) {
        platform_bus_guard_flush(connection->bus);
        drop(connection);
    } else {
        lose(connection, ECONNRESET);
    }
}

int on_reply(sd_bus_message *message, void *user_data, sd_bus_error *)
{
    *static_cast<sd_bus_message **>(user_data) = sd_bus_message_ref(message);
    return 1; /* so that sd_bus_process() reports progress, for a time-out too */
}

} // namespace

bool platform_bus_hold(sd_bus **bus, GError **error)
{
    return hold(&shared, bus, error);
}

bool platform_bus_hold_lookup(sd_bus **bus, GError **error)
{
    return hold(&lookup, bus, error);
}

void platform_bus_start_lookup(sd_bus **bus)
{
    hold_started(&lookup, bus, nullptr);
}

bool platform_bus_is_open(sd_bus *bus)
{
    return bus && sd_bus_is_open(bus) > 0;
}

void platform_bus_release(sd_bus *bus)
{
    if (!bus) {
        return;
    }
    for (Connection *connection : {&shared, &lookup}) {
        if (bus == connection->bus) {
            release(connection);
            break;
        }
    }
    sd_bus_unref(bus);
}

int platform_bus_call(sd_bus *bus, sd_bus_message *call, sd_bus_message **reply)
{
    sd_bus_slot *slot = nullptr;
    *reply = nullptr;
    int r = sd_bus_call_async(bus, &slot, call, on_reply, reply, 0);
    while (r >= 0 && !*reply) {
        r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            r = sd_bus_wait(bus, UINT64_MAX); /* the time-out of the call ends it */
        }
    }
    sd_bus_slot_unref(slot);
    return *reply ? -sd_bus_message_get_errno(*reply) : r;
}

void platform_bus_set_timeout(uint64_t usec)
{
    timeout_usec = usec;
}
