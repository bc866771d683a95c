#pragma once

/* g_autoptr() for the values of libraries that do not provide it. */

#include <glib.h>
#include <jansson.h>
#include <systemd/sd-bus.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(json_t, json_decref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus_message, sd_bus_message_unref)
