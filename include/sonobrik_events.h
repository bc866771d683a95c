#pragma once

/*
 * Playing-status events: tell the device's event system which audio output plays, and which file.
 *
 * Every audio device has two events for its first output, declared at set-up. The output is named
 * by its number or, where that is -1, by its device id and its id there.
 */

#include <glib.h>

/*
 * Opens the event producer and declares the events. Called on the main thread. Nothing depends on
 * the result: without events clips play all the same.
 */
bool sonobrik_events_setup();

/* Withdraws the events. Called on the main thread, also when they were never set up. */
void sonobrik_events_teardown();

/* Sends the status of an output: it plays, or it has stopped. Called on the main thread. */
void sonobrik_events_set_file_state(bool playing, gint32 audio_output, gint32 audio_device_id,
                                    gint32 audio_output_id);

/*
 * Sends the path of the file that an output begins to play. May be called on any thread: the event
 * is sent from the main loop. Null sends nothing.
 */
void sonobrik_events_set_file(const char *file_name, gint32 audio_output, gint32 audio_device_id,
                              gint32 audio_output_id);
