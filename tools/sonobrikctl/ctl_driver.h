#pragma once

#include "client_bus.h"

/* The message bus itself, which knows who is there. */
inline constexpr ClientInterface CTL_BUS_DRIVER = {
    .service = "org.freedesktop.DBus",
    .object = "/org/freedesktop/DBus",
    .interface = "org.freedesktop.DBus",
};
