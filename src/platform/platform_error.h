#pragma once

/* The domain of the stock platform's own GLib errors. Their codes are errno values. */

#include <glib.h>

#define PLATFORM_ERROR (g_quark_from_static_string("vesk-platform"))
