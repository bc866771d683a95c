#pragma once

/*
 * The legacy configuration interface: "com.vesk.Sonobrik.Legacy" on a connection of its own to the
 * system bus, with which the device's configuration front end lists, reads, renames, adds and
 * removes clip records. Any peer may call it. Main thread only.
 */

/* Opens the connection and publishes the methods. Returns false with a log line. */
bool sonobrik_group_dbus_setup();

/* Closes the connection, if there is one. */
void sonobrik_group_dbus_teardown();
