#include "platform_bus.h"

#include <algorithm>
#include <cerrno>

#include "platform_error.h"

namespace
{

uint64_t timeout_usec = UINT64_C(5000) * 1000;

/* The most messages handled per turn of the loop. Other sources must run while a peer floods us. */
constexpr unsigned MESSAGES_PER_TURN = 64;

struct BusSource {
    GSource base;
    sd_bus *bus; /* one reference */
    GPollFD poll;
};

struct {
    sd_bus *bus; /* one reference; null if there is no connection */
    GSource *source;
    unsigned holders;
} shared;

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

/* Closes the shared connection. Its holders still have valid references to it. */
void drop_shared()
{
    g_source_destroy(shared.source);
    g_source_unref(shared.source);
    sd_bus_close(shared.bus); /* queued messages hold references, so unref alone may not close it */
    sd_bus_unref(shared.bus);
    shared = {};
}

/* Logs that the shared connection was lost, and closes it. */
void lose_shared(int reason)
{
    g_warning("%sThe platform's connection to the system bus was lost: %s.", "",
              g_strerror(reason));
    drop_shared();
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
        lose_shared(-r);
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

GSource *bus_source_new(sd_bus *bus)
{
    GSource *base = g_source_new(&bus_source_functions, sizeof(BusSource));
    auto *source = reinterpret_cast<BusSource *>(base);
    source->bus = sd_bus_ref(bus);
    source->poll.fd = sd_bus_get_fd(bus);
    g_source_add_poll(base, &source->poll);
    return base;
}

/*
 * Waits until the connection is ready for use. sd_bus_open_system() only starts the authentication,
 * and a bus that hangs never finishes it. Returns a negative errno on failure.
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

bool open_shared(GError **error)
{
    sd_bus *bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r >= 0) {
        r = wait_until_ready(bus);
    }
    if (r >= 0) {
        r = sd_bus_set_method_call_timeout(bus, timeout_usec);
    }
    if (r < 0) {
        g_set_error(error, PLATFORM_ERROR, -r, "The system bus cannot be reached: %s",
                    g_strerror(-r));
        sd_bus_close_unref(bus);
        return false;
    }
    shared.bus = bus;
    shared.source = bus_source_new(bus);
    g_source_attach(shared.source, nullptr);
    return true;
}

} // namespace

bool platform_bus_hold(sd_bus **bus, GError **error)
{
    if (platform_bus_is_open(*bus)) {
        return true;
    }
    platform_bus_release(g_steal_pointer(bus));
    if (shared.bus && !platform_bus_is_open(shared.bus)) {
        lose_shared(ECONNRESET);
    }
    if (!shared.bus && !open_shared(error)) {
        return false;
    }
    shared.holders++;
    *bus = sd_bus_ref(shared.bus);
    return true;
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
    if (bus == shared.bus && --shared.holders == 0) {
        if (platform_bus_is_open(bus)) {
            sd_bus_flush(bus);
            drop_shared();
        } else {
            lose_shared(ECONNRESET);
        }
    }
    sd_bus_unref(bus);
}

void platform_bus_set_timeout(uint64_t usec)
{
    timeout_usec = usec;
}
