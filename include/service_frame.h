#pragma once

/* The service frame: the process's main loop and its exit. */

#include <glib.h>

/*
 * Stops the main loop, if it runs, and sets the exit status of the process to `code`; 75 makes
 * systemd restart the daemon. Called on the main thread.
 */
void sonobrik_quit_main_loop(gint32 code);
