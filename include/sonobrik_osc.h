#pragma once

/*
 * On-screen control features: offers the actions "play a clip", with the stored clips to choose
 * from, and "stop" to the device's on-screen controls service. Called on the main thread. The call
 * to the service is synchronous: it blocks the main loop until the service answers or the bus's
 * time-out of 25 s is over.
 */

/* As sonobrik_osc_update(), at the start of the daemon. */
bool sonobrik_osc_setup();

/*
 * Registers the features with the clips as they are stored now. Returns false, with a log line, on
 * failure, such as when there is no on-screen controls service.
 */
bool sonobrik_osc_update();

/* Closes the connection that updates use, if there is one. */
void sonobrik_osc_teardown();
