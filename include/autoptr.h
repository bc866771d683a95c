#pragma once

/* g_autoptr() and g_auto() for the values of libraries that do not provide them. */

#include <cstdlib>
#include <glib.h>
#include <jansson.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

/*
 * A text of json_dumps(), for g_auto(JsonText). It comes from malloc(), which need not be the
 * allocator behind g_free(), so g_autofree must not free it.
 */
typedef char *JsonText;

G_DEFINE_AUTO_CLEANUP_FREE_FUNC(JsonText, free, nullptr)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(json_t, json_decref)

/* For g_auto(sd_bus_error), which must be initialised with {}: clang rejects SD_BUS_ERROR_NULL in
 * C++. */
G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(sd_bus_error, sd_bus_error_free)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus_creds, sd_bus_creds_unref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus_slot, sd_bus_slot_unref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_bus_message, sd_bus_message_unref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(sd_event, sd_event_unref)
