#include "audioclip_dbus.h"

#include <cstring>
#include <glib.h>

#include "clip_methods.h"
#include "devices_listener.h"
#include "log_level.h"
#include "platform/access_policy.h"
#include "playback_methods.h"
#include "service_frame.h"
#include "sonobrik_dbus.h"

namespace
{

constexpr const char *SERVICE_NAME = "com.vesk.Sonobrik";
constexpr const char *OBJECT_PATH = "/com/vesk/Sonobrik";
constexpr const char *INTERFACE_NAME = "com.vesk.Sonobrik";

/* Asks the service manager to start the daemon anew. */
constexpr gint32 EXIT_DEVICES_CHANGED = 75;

sonobrik_dbus *dbus_connection;

/*
 * Sees every message to the object before the method table does. Only the daemon's own interface is
 * guarded: anybody may introspect the object.
 */
int authorise(sd_bus_message *message, void *, sd_bus_error *)
{
    if (g_strcmp0(sd_bus_message_get_interface(message), INTERFACE_NAME) != 0) {
        return 0;
    }
    const char *member = sd_bus_message_get_member(message);
    g_autofree char *action =
        member ? g_strdup_printf("%s.%s", INTERFACE_NAME, member) : g_strdup(INTERFACE_NAME);
    g_autoptr(GError) error = nullptr;
    if (!access_policy_check(sd_bus_message_get_sender(message), action, &error)) {
        g_info("%sFailed to authorize: %s", "", error->message);
        return -1; /* errno 1: sd-bus answers that access is denied */
    }
    return 0;
}

/*
 * The playing-status events are declared for the devices of the start. Instead of mending them at
 * run time, the daemon starts anew when the devices have changed.
 */
int devices_changed(sd_bus_message *message, void *, sd_bus_error *)
{
    /* The service announces its devices to everybody; a signal to us alone is somebody else's. */
    if (!sd_bus_message_get_destination(message)) {
        sonobrik_quit_main_loop(EXIT_DEVICES_CHANGED);
    }
    return 0;
}

constexpr sd_bus_vtable method_table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AddClip", "sss", "i", sonobrik_add_clip, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetMetadata", "", "s", sonobrik_get_metadata, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StartPlayingClip", "s", "s", sonobrik_play_clip_asynchronous,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("PlayClip", "s", "s", sonobrik_play_clip_synchronous, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StopPlayingClip", "s", "s", sonobrik_stop_clip, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SupportedFile", "s", "s", sonobrik_supported_file, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

int audioclip_dbus_setup(AudioClip *clip)
{
    playback_methods_setup();

    g_autoptr(GError) error = nullptr;
    if (!access_policy_init(&error)) {
        log_error("%saccess_policy_init failed, error %s", "", error->message);
        return -1;
    }
    dbus_connection = sonobrik_dbus_setup(SERVICE_NAME);
    if (!dbus_connection) {
        log_error("%sFailed to connect to the system bus", "");
        return -1;
    }
    int r = sonobrik_dbus_add_object(dbus_connection, OBJECT_PATH, authorise, nullptr);
    if (r < 0) {
        log_error("%sFailed to add dbus object %s for access_policy handler: %s.", "", OBJECT_PATH,
                  strerror(-r));
        return r;
    }
    r = sonobrik_dbus_add_vtable(dbus_connection, OBJECT_PATH, INTERFACE_NAME, method_table, clip);
    if (r < 0) {
        log_error("%sFailed to setup the dbus object %s: %s.", "", OBJECT_PATH, strerror(-r));
        return r;
    }
    r = sonobrik_dbus_devices_listener(dbus_connection, devices_changed);
    if (r < 0) {
        log_error("%sFailed to setup the dbus listener to audiocontrol: %s.", "", strerror(-r));
    }
    return r;
}

void audioclip_dbus_teardown()
{
    playback_methods_teardown();
    sonobrik_dbus_teardown(dbus_connection);
}
