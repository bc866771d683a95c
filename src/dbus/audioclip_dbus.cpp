#include "audioclip_dbus.h"

#include <cstring>
#include <glib.h>

#include "audioclip_methods.h"
#include "bus_names.h"
#include "devices_listener.h"
#include "held_call.h"
#include "log_control.h"
#include "log_level.h"
#include "platform/access_policy.h"
#include "service_frame.h"
#include "sonobrik_dbus.h"

namespace
{

/* Makes systemd restart the daemon. */
constexpr gint32 EXIT_DEVICES_CHANGED = 75;

sonobrik_dbus *dbus_connection;

/*
 * Checks every message to the object before sd-bus looks at the method table. Only the daemon's own
 * interface is guarded: anybody may introspect the object.
 */
int authorise(sd_bus_message *message, void *, sd_bus_error *)
{
    if (g_strcmp0(sd_bus_message_get_interface(message), SONOBRIK_INTERFACE) != 0) {
        return 0;
    }
    const char *member = sd_bus_message_get_member(message);
    g_autofree char *action = member ? g_strconcat(SONOBRIK_INTERFACE, ".", member, nullptr)
                                     : g_strdup(SONOBRIK_INTERFACE);
    g_autoptr(GError) error = nullptr;
    if (!access_policy_check(sd_bus_message_get_sender(message), action, &error)) {
        g_info("%sFailed to authorize: %s", "", error ? error->message : "no reason given");
        return -1; /* -EPERM, which sd-bus answers with AccessDenied */
    }
    return 0;
}

/*
 * The playing-status events are declared at start-up, for the devices of that moment. When the
 * devices change, the daemon restarts instead of updating them.
 */
int devices_changed(sd_bus_message *message, void *, sd_bus_error *)
{
    /*
     * The audio control service broadcasts its signals. A signal that is addressed to this
     * connection may come from any peer: the bus does not check its sender against the match.
     */
    if (!sd_bus_message_get_destination(message)) {
        sonobrik_quit_main_loop(EXIT_DEVICES_CHANGED);
    }
    return 0;
}

} // namespace

int audioclip_dbus_setup(AudioClip *clip)
{
    held_call_setup();

    g_autoptr(GError) error = nullptr;
    if (!access_policy_init(&error)) {
        log_error("%saccess_policy_init failed, error %s", "",
                  error ? error->message : "no reason given");
        return -1;
    }
    dbus_connection = sonobrik_dbus_setup(SONOBRIK_SERVICE);
    if (!dbus_connection) {
        log_error("%sFailed to connect to the system bus", "");
        return -1;
    }
    int r = sonobrik_dbus_add_object(dbus_connection, SONOBRIK_OBJECT_PATH, authorise, nullptr);
    if (r < 0) {
        log_error("%sFailed to add dbus object %s for access_policy handler: %s.", "",
                  SONOBRIK_OBJECT_PATH, strerror(-r));
        return r;
    }
    r = sonobrik_dbus_add_vtable(dbus_connection, SONOBRIK_OBJECT_PATH, SONOBRIK_INTERFACE,
                                 audioclip_method_table, clip);
    if (r < 0) {
        log_error("%sFailed to setup the dbus object %s: %s.", "", SONOBRIK_OBJECT_PATH,
                  strerror(-r));
        return r;
    }
    r = sonobrik_dbus_devices_listener(dbus_connection, devices_changed);
    if (r < 0) {
        log_error("%sFailed to setup the dbus listener to audiocontrol: %s.", "", strerror(-r));
        return r;
    }
    log_control_setup(dbus_connection);
    return r;
}

void audioclip_dbus_teardown()
{
    held_call_teardown();
    sonobrik_dbus_teardown(dbus_connection);
}

void audioclip_dbus_notify_request_finished()
{
    held_call_finish();
}
