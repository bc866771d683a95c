#pragma once

/*
 * The methods that play and stop clips, with the one PlayClip call whose answer is held back until
 * its clip has ended. Main thread only.
 */

#include <systemd/sd-bus.h>

/*
 * Method handlers; `user_data` is the AudioClip. Each takes options (s) and answers "OK" (s), or
 * fails with the method's error name.
 */
int sonobrik_play_clip_synchronous(sd_bus_message *message, void *user_data,
                                   sd_bus_error *ret_error);
int sonobrik_play_clip_asynchronous(sd_bus_message *message, void *user_data,
                                    sd_bus_error *ret_error);
int sonobrik_stop_clip(sd_bus_message *message, void *user_data, sd_bus_error *ret_error);

/* Begins without a held call. */
void playback_methods_setup();

/* Drops the held call, if any; its caller gets no answer. */
void playback_methods_teardown();
