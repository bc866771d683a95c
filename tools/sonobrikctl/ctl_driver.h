#pragma once

#include "client_bus.h"

/* The message bus itself, which knows who is there. */
inline constexpr ClientInterface CTL_BUS_DRIVER = {
    .service = "org.freedesktop.DBus",
    .object = "/org/freedesktop/DBus",
    .interface = "org.freedesktop.DBus",
};

/* Whether somebody on the bus owns `name`. */
bool ctl_driver_has_owner(sd_bus *bus, const char *name);
