#pragma once

/* The service frame: the process's main loop, its watchdog and its exit. */

#include <glib.h>

/*
 * Stops the main loop, if it runs, and sets the exit status of the process to `code`; 75 makes
 * systemd restart the daemon. Called on the main thread.
 */
void sonobrik_quit_main_loop(gint32 code);

/*
 * Pings systemd's watchdog, if one is configured and the last ping is not too recent. Long work on
 * the main thread calls this between two files, because the main loop cannot ping meanwhile. Do not
 * call it while working on one file: systemd must notice a daemon that is stuck in a file. Called
 * on the main thread.
 */
void sonobrik_feed_watchdog();
