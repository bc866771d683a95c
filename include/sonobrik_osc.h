#pragma once

/*
 * On-screen control features: registers the actions "play a clip", with the stored clips to choose
 * from, and "stop" with the device's on-screen controls service. Called on the main thread. Each
 * registration blocks the main loop until the service answers, at most 25 s.
 */

/* Registers the features at start-up; see sonobrik_osc_update(). */
bool sonobrik_osc_setup();

/*
 * Registers the features with the clips that are stored now. Returns false with a log line on
 * failure, for example if there is no on-screen controls service.
 */
bool sonobrik_osc_update();

/* Closes the connection that updates use, if there is one. */
void sonobrik_osc_teardown();
