#pragma once

/* Watches the audio control service for devices that are added or removed. */

#include "sonobrik_dbus.h"

/*
 * Calls `callback` on the main thread, without user data, when the audio control service announces
 * that it added or removed a device. The callback also gets signals that another peer addressed to
 * this connection: the bus does not check their sender. Returns a negative errno value on failure.
 */
int sonobrik_dbus_devices_listener(sonobrik_dbus *conn, sd_bus_message_handler_t callback);
