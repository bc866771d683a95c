#pragma once

/*
 * The audio devices by name, as the audio control service lists them. Only the stock platform has
 * this service, and an administrator may have stopped it; then the outputs have numbers alone
 * (client_events.h).
 */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_error.h"

/* The service's bus name. */
extern const char *const CLIENT_DEVICES_SERVICE;

/* An audio device that is plugged in, or was. */
struct ClientDevice {
    gint32 number; /* the `audiooutput` of a play request if it is at most CLIENT_MAX_OUTPUT */
    char *name;    /* owned; any UTF-8 that the service sends, not empty */
    bool plugged_in;
    bool is_override; /* the administrator defines its first output, maybe on another card */
};

void client_device_free(ClientDevice *device);
G_DEFINE_AUTOPTR_CLEANUP_FUNC(ClientDevice, client_device_free)

/*
 * Returns the devices, an array of owned ClientDevice sorted by `number`. Without the service,
 * returns null and sets CLIENT_ERROR_NO_DAEMON; callers then go on without names.
 */
GPtrArray *client_devices_list(sd_bus *bus, GError **error);

/* Returns the device with this number, borrowed from `devices`, or null. `devices` may be null. */
const ClientDevice *client_devices_get(const GPtrArray *devices, gint32 number);

/*
 * Returns the name of the device on which an output of the daemon plays, borrowed from `devices`.
 * Returns null if it is not known: an output that the administrator defines may play on another
 * card than the device of the same number. `devices` may be null.
 */
const char *client_devices_get_name(const GPtrArray *devices, gint32 output);
