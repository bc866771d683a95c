#pragma once

/*
 * The legacy configuration interface: the service "com.vesk.Sonobrik.Legacy" on its own bus
 * connection. The device's configuration front end uses it to list, read, rename, add and remove
 * clip records. The daemon lets any peer call it; the bus policy limits the callers. Main thread
 * only.
 */

/* Opens the connection and registers the methods. Returns false with a log line on failure. */
bool sonobrik_group_dbus_setup();

/* Closes the connection, if there is one. */
void sonobrik_group_dbus_teardown();
