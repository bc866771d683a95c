#pragma once

/*
 * The legacy configuration interface: the service "com.vesk.Sonobrik.Legacy" on a bus connection of
 * its own. The device's configuration front end lists, reads, renames, adds and removes clip
 * records with it. The daemon lets any peer call it; the bus policy limits the callers. Main thread
 * only.
 */

/* Opens the connection and registers the methods. Returns false with a log line on failure. */
bool sonobrik_group_dbus_setup();

/* Closes the connection, if there is one. */
void sonobrik_group_dbus_teardown();
