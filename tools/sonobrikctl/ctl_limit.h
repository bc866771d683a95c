#pragma once

/* The number of clips that the daemon stores. */

#include <glib.h>
#include <systemd/sd-bus.h>

/* Explains that no more clips can be stored, if that is so. Returns false and prints nothing if
 * not, or if the limit is not known. */
bool ctl_limit_explain(sd_bus *bus);
