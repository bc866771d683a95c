#pragma once

/* The clip store as the service frame sees it. Called on the main thread. */

/* Brings up the store's interface on the bus; no file is read. False, with a log line, on failure.
 */
bool sonobrik_parameters_setup();

/* Takes it down, also when it was never up. */
void sonobrik_parameters_teardown();
