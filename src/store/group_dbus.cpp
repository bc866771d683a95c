#include "group_dbus.h"

#include <cstring>
#include <glib.h>

#include "group_methods.h"
#include "log_level.h"
#include "sonobrik_dbus.h"

namespace
{

constexpr const char *SERVICE_NAME = "com.vesk.Sonobrik.Legacy";
constexpr const char *OBJECT_PATH = "/com/vesk/Sonobrik";
constexpr const char *INTERFACE_NAME = "com.vesk.Configuration.Legacy";

sonobrik_dbus *dbus_connection;

constexpr sd_bus_vtable method_table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AddConfiguration", "i", "i", sonobrik_group_add_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RemoveConfiguration", "i", "", sonobrik_group_remove_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetConfigurationEntry", "is", "v", sonobrik_group_get_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SetConfigurationEntry", "isv", "", sonobrik_group_set_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetConfigurations", "", "a{ia{sv}}", sonobrik_group_get_configurations,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Sync", "", "", sonobrik_group_sync, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

/*
 * GetConfigurationEntry answers "sv", though its table entry declares "v"; callers rely on both.
 * sd-bus holds a method that it called from a table to the table, and would refuse to send that
 * reply, so a good call of this one method is answered before the table is consulted. All else, the
 * same call with other arguments included, goes on to the table.
 */
int answer_get_configuration_entry(sd_bus_message *message, void *user_data,
                                   sd_bus_error *ret_error)
{
    if (sd_bus_message_is_method_call(message, INTERFACE_NAME, "GetConfigurationEntry") <= 0 ||
        g_strcmp0(sd_bus_message_get_path(message), OBJECT_PATH) != 0 ||
        sd_bus_message_has_signature(message, "is") <= 0) {
        return 0;
    }
    return sonobrik_group_get_configuration(message, user_data, ret_error);
}

} // namespace

bool sonobrik_group_dbus_setup()
{
    dbus_connection = sonobrik_dbus_setup(SERVICE_NAME);
    if (!dbus_connection) {
        log_error("%sFailed to connect to the system bus", "");
        return false;
    }
    int r =
        sd_bus_add_filter(dbus_connection->bus, nullptr, answer_get_configuration_entry, nullptr);
    if (r >= 0) {
        r = sonobrik_dbus_add_vtable(dbus_connection, OBJECT_PATH, INTERFACE_NAME, method_table,
                                     nullptr);
    }
    if (r < 0) {
        log_error("%sFailed to setup the dbus object %s: %s.", "", OBJECT_PATH, strerror(-r));
        return false;
    }
    return true;
}

void sonobrik_group_dbus_teardown()
{
    sonobrik_dbus_teardown(dbus_connection);
}
