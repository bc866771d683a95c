#include "sonobrik_dbus.h"

#include <cstdlib>
#include <cstring>

#include "autoptr.h"
#include "bus_guard.h"
#include "log_level.h"
#include "service_frame.h"
#include "sonobrik_dbus_source.h"

namespace
{

constexpr int ERROR_NUMBER = 65535;

/* AddClip's error name is missing. Callers do not notice: the bus carries names, not errnos. */
constexpr sd_bus_error_map error_map[] = {
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.StartPlayingClip", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.PlayClip", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.StopPlayingClip", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.SupportedFile", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.GetMetadata", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.Legacy.GetConfigurations", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.Legacy.GetConfigurationEntry", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.Legacy.SetConfigurationEntry", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.Legacy.AddConfiguration", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.Legacy.RemoveConfiguration", ERROR_NUMBER),
    SD_BUS_ERROR_MAP("com.vesk.Sonobrik.Legacy.Sync", ERROR_NUMBER),
    SD_BUS_ERROR_MAP_END,
};

/* Opens the connection and requests its name. Returns false with a log line on failure. */
bool connect_as(sonobrik_dbus *conn, const char *service_name)
{
    int r = sd_bus_open_system(&conn->bus);
    if (r < 0) {
        log_error("%sFailed to connect to system bus: %s.", "", strerror(-r));
        return false;
    }
    r = sd_bus_error_add_map(error_map);
    if (r < 0) {
        log_error("%sFailed to add custom error map: %s.", "", strerror(-r));
        return false;
    }
    r = sd_bus_request_name(conn->bus, service_name, 0);
    if (r < 0) {
        log_error("%sFailed to acquire service name %s: %s.", "", service_name, strerror(-r));
        return false;
    }
    return true;
}

void on_silence(void *user_data)
{
    auto *conn = static_cast<sonobrik_dbus *>(user_data);
    conn->on_lost(conn);
}

/* Protects a connection that serves callers. Returns false with a log line on failure. */
bool guard(sonobrik_dbus *conn)
{
    conn->watch = g_new0(BusWatch, 1);
    conn->watch->bus = conn->bus;
    conn->watch->on_silence = on_silence;
    conn->watch->user_data = conn;
    int r = bus_guard_setup(conn->bus);
    if (r >= 0) {
        r = bus_watch_setup(conn->watch);
    }
    if (r < 0) {
        log_error("%sFailed to guard the connection: %s.", "", strerror(-r));
    }
    return r >= 0;
}

/* Returns a new event loop that runs the connection, or null with a log line. */
sd_event *attach_event(sd_bus *bus)
{
    g_autoptr(sd_event) event = nullptr;
    int r = sd_event_new(&event);
    if (r < 0) {
        g_warning("%sFailed to create event: %s.", "", strerror(-r));
        return nullptr;
    }
    r = sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
    if (r < 0) {
        g_warning("%sFailed to attach event: %s.", "", strerror(-r));
        return nullptr;
    }
    return g_steal_pointer(&event);
}

/* sd-bus calls this once, after the connection has broken. */
int on_disconnected(sd_bus_message *, void *user_data, sd_bus_error *)
{
    auto *conn = static_cast<sonobrik_dbus *>(user_data);
    conn->on_lost(conn);
    return 0;
}

/* sd-bus itself creates this signal when the connection has broken; the bus never sends it. */
int watch_disconnect(sonobrik_dbus *conn)
{
    return sd_bus_match_signal(conn->bus, nullptr, nullptr, "/org/freedesktop/DBus/Local",
                               "org.freedesktop.DBus.Local", "Disconnected", on_disconnected, conn);
}

/* The source calls this before it removes itself because it cannot dispatch any more. */
gboolean on_dispatch_failed(gpointer user_data)
{
    auto *conn = static_cast<sonobrik_dbus *>(user_data);
    conn->on_lost(conn);
    return G_SOURCE_REMOVE;
}

/* Without its bus name the daemon is of no use, so it exits and systemd restarts it. */
void on_service_lost(sonobrik_dbus *conn)
{
    log_error("%sThe connection of %s to the system bus was lost.", "", conn->service_name);
    sonobrik_quit_main_loop(EXIT_FAILURE);
}

int invalid_arguments(const char *operation)
{
    g_warning("%s%s: called with invalid arguments", "", operation);
    return -1;
}

} // namespace

sonobrik_dbus *sonobrik_dbus_setup(const char *service_name)
{
    if (!service_name) {
        log_error("%sA dbus service name must be specified.", "");
        return nullptr;
    }
    g_autofree auto *conn = g_try_new0(sonobrik_dbus, 1);
    if (!conn) {
        log_error("%sFailed to allocate structure", "");
        return nullptr;
    }
    conn->service_name = service_name;
    if (!connect_as(conn, service_name) || !guard(conn) ||
        !sonobrik_dbus_attach(conn, on_service_lost)) {
        g_free(conn->watch); /* nothing reads the messages that its filter would see */
        return nullptr;
    }
    return g_steal_pointer(&conn);
}

bool sonobrik_dbus_attach(sonobrik_dbus *conn, void (*on_lost)(sonobrik_dbus *conn))
{
    if (!conn || !conn->bus || !on_lost) {
        g_warning("%s%s: called with invalid arguments", "", "sonobrik_dbus_attach");
        return false;
    }
    conn->on_lost = on_lost;
    g_autoptr(sd_event) event = attach_event(conn->bus);
    const int r = event ? watch_disconnect(conn) : 0;
    if (r < 0) {
        g_warning("%sFailed to watch the connection: %s.", "", strerror(-r));
    }
    if (!event || r < 0) {
        log_error("%sFailed to attach to gMainLoop.", "");
        return false;
    }
    conn->source = sonobrik_dbus_source_new(event);
    GSource *source = &conn->source->source;
    g_source_set_callback(source, on_dispatch_failed, conn, nullptr);
    g_source_attach(source, nullptr);
    return true;
}

void sonobrik_dbus_teardown(sonobrik_dbus *conn)
{
    if (!conn) {
        return;
    }
    if (conn->watch) {
        bus_watch_teardown(conn->watch);
    }
    if (conn->source) {
        GSource *source = &g_steal_pointer(&conn->source)->source;
        g_source_destroy(source);
        g_source_unref(source);
    }
    sd_bus_slot_unref(g_steal_pointer(&conn->slot));
    bus_guard_flush(conn->bus);
    sd_bus_flush_close_unref(g_steal_pointer(&conn->bus));
    g_free(g_steal_pointer(&conn->watch)); /* the filter is gone */
}

int sonobrik_dbus_add_object(sonobrik_dbus *conn, const char *path,
                             sd_bus_message_handler_t callback, void *user_data)
{
    if (!conn || !conn->bus || !path || !callback) {
        return invalid_arguments("sonobrik_dbus_add_object");
    }
    return sd_bus_add_object(conn->bus, &conn->slot, path, callback, user_data);
}

int sonobrik_dbus_add_vtable(sonobrik_dbus *conn, const char *path, const char *interface,
                             const sd_bus_vtable *vtable, void *user_data)
{
    if (!conn || !conn->bus || !path || !interface || !vtable) {
        return invalid_arguments("sonobrik_dbus_add_vtable");
    }
    return sd_bus_add_object_vtable(conn->bus, &conn->slot, path, interface, vtable, user_data);
}

int sonobrik_dbus_add_match(sonobrik_dbus *conn, const char *match,
                            sd_bus_message_handler_t callback, void *user_data)
{
    if (!conn || !conn->bus || !match || !callback) {
        return invalid_arguments("sonobrik_dbus_add_match");
    }
    return sd_bus_add_match(conn->bus, &conn->slot, match, callback, user_data);
}
