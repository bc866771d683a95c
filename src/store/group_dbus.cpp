#include "group_dbus.h"

#include <cstring>
#include <glib.h>

#include "bus_names.h"
#include "group_methods.h"
#include "log_level.h"
#include "sonobrik_dbus.h"

namespace
{

sonobrik_dbus *dbus_connection;

/*
 * GetConfigurationEntry declares the result "v" but replies with "sv"; configuration front ends
 * rely on both. For a method that is called through a table, sd-bus refuses to send a reply
 * whose type is not the declared one. This filter therefore answers valid calls of that method
 * before sd-bus reads the table. Everything else goes on to the table, calls with the wrong
 * arguments included.
 */
int answer_get_configuration_entry(sd_bus_message *message, void *user_data,
                                   sd_bus_error *ret_error)
{
    if (sd_bus_message_is_method_call(message, SONOBRIK_LEGACY_INTERFACE,
                                      "GetConfigurationEntry") <= 0 ||
        g_strcmp0(sd_bus_message_get_path(message), SONOBRIK_OBJECT_PATH) != 0 ||
        sd_bus_message_has_signature(message, "is") <= 0) {
        return 0;
    }
    return sonobrik_group_get_configuration(message, user_data, ret_error);
}

} // namespace

bool sonobrik_group_dbus_setup()
{
    dbus_connection = sonobrik_dbus_setup(SONOBRIK_LEGACY_SERVICE);
    if (!dbus_connection) {
        log_error("%sFailed to connect to the system bus", "");
        return false;
    }
    int r =
        sd_bus_add_filter(dbus_connection->bus, nullptr, answer_get_configuration_entry, nullptr);
    if (r >= 0) {
        r = sonobrik_dbus_add_vtable(dbus_connection, SONOBRIK_OBJECT_PATH,
                                     SONOBRIK_LEGACY_INTERFACE, group_method_table, nullptr);
    }
    if (r < 0) {
        log_error("%sFailed to setup the dbus object %s: %s.", "", SONOBRIK_OBJECT_PATH,
                  strerror(-r));
        return false;
    }
    return true;
}

void sonobrik_group_dbus_teardown()
{
    sonobrik_dbus_teardown(dbus_connection);
}
