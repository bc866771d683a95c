#pragma once

/* The methods that deal with clip files. Main thread only. */

#include <systemd/sd-bus.h>

/*
 * Method handler: takes a file path (s), answers "OK" (s) when its format can be played, or fails
 * with the method's error name and the reason. Inspects the file, so it may block for the
 * discoverer's time-out.
 */
int sonobrik_supported_file(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);
