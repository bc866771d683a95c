#pragma once

/* The domain of the GLib errors that the stock platform makes itself; their codes are errno values.
 */

#include <glib.h>

#define PLATFORM_ERROR (g_quark_from_static_string("vesk-platform"))
