#pragma once

/*
 * Playing-status events: tell the device's event system which audio output plays, and which file.
 *
 * Every usable audio device (see device_utils.h) has two events for its first output, declared at
 * set-up. The output is named by its number or, if that is -1, by its device id and output id.
 */

#include <glib.h>

/*
 * Opens the event producer and declares the events. Called on the main thread. The caller may
 * ignore the result: clips play without events too.
 */
bool sonobrik_events_setup();

/*
 * Closes the event producer, which withdraws the events. Called on the main thread; safe without a
 * set-up.
 */
void sonobrik_events_teardown();

/* Sends the event that tells whether an output is playing. Called on the main thread. */
void sonobrik_events_set_file_state(bool playing, gint32 audio_output, gint32 audio_device_id,
                                    gint32 audio_output_id);

/*
 * Sends the path of the file that an output starts to play. May be called on any thread: the main
 * loop sends the event. Does nothing for a null path.
 */
void sonobrik_events_set_file(const char *file_name, gint32 audio_output, gint32 audio_device_id,
                              gint32 audio_output_id);
