#pragma once

/* Questions to the message bus itself. */

#include "client_bus.h"

/* The interface of the message bus. */
inline constexpr ClientInterface CTL_BUS_DRIVER = {
    .service = "org.freedesktop.DBus",
    .object = "/org/freedesktop/DBus",
    .interface = "org.freedesktop.DBus",
};

/* Returns true if a connection on the bus owns `name`. */
bool ctl_driver_has_owner(sd_bus *bus, const char *name);
