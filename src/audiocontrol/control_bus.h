#pragma once

/*
 * The service on the bus: an object manager at "/com/vesk/AudioControl" and, under it, one object
 * for each known device, "/com/vesk/AudioControl/NUMBER".
 *
 * Each object has the interface "com.vesk.AudioControl.Device". While the device is plugged in it
 * also has "com.vesk.AudioControl.Outputs", so the signals InterfacesAdded and InterfacesRemoved
 * announce that a device was plugged in or unplugged.
 */

#include <set>
#include <string>
#include <systemd/sd-bus.h>

#include "device_table.h"

/* What is on the bus. */
struct ControlPicture {
    DeviceTable devices;
    std::set<std::string> overrides; /* names of PCMs that the administrator defines */
};

/*
 * Publishes `*picture`, which the caller owns and changes through control_bus_change() only, on
 * `bus`. Sends no signal and takes no name. Returns 0 or a negative errno.
 */
int control_bus_publish(sd_bus *bus, ControlPicture *picture);

/* Requests the name of the service. Returns 0 or a negative errno. */
int control_bus_take_name(sd_bus *bus);

/* Returns true if the daemon is running. Waits for the bus's answer. */
bool control_bus_has_daemon(sd_bus *bus);

/*
 * Makes `*picture` equal to `next` and sends the signals of what changed: InterfacesRemoved and
 * InterfacesAdded for each device that was added or removed, or whose number of outputs changed,
 * and PropertiesChanged for the rest.
 */
void control_bus_change(sd_bus *bus, ControlPicture *picture, ControlPicture next);

/* Returns true if the administrator defines a PCM of this output. */
bool control_picture_is_override(const ControlPicture &picture, int device, size_t output);
