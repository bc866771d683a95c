#pragma once

/* Starts and stops the clip store for the service frame. Called on the main thread. */

/* Starts the store's D-Bus interface; reads no file. Returns false with a log line on failure. */
bool sonobrik_parameters_setup();

/* Stops the interface; safe without a set-up. */
void sonobrik_parameters_teardown();
