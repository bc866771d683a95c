#pragma once

/* Listens for audio devices that come and go. */

#include "sonobrik_dbus.h"

/*
 * Has `callback` called, on the main thread and without user data, when the audio control service
 * announces that it added or removed a device. sd-bus leaves it to the bus to check the sender, so
 * a signal that somebody sent to this connection alone is passed on too. Returns a negative errno
 * value on failure.
 */
int sonobrik_dbus_devices_listener(sonobrik_dbus *conn, sd_bus_message_handler_t callback);
