#pragma once

/* The service frame: the process's main loop and how it ends. */

#include <glib.h>

/*
 * Ends the main loop, if it runs, and makes `code` the exit status of the process: 75 asks the
 * service manager for a restart. Called on the main thread.
 */
void sonobrik_quit_main_loop(gint32 code);
