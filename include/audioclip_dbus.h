#pragma once

/*
 * The main D-Bus service: "com.vesk.Sonobrik" on the system bus, with the methods that play and
 * stop clips, and the check of who may call them. Called on the main thread.
 */

#include "audio_clip.h"

/*
 * Brings the service up; its methods act on `clip`, which must outlive it. Returns a negative
 * value, with a log line, on failure; audioclip_dbus_teardown() then removes what is there.
 */
int audioclip_dbus_setup(AudioClip *clip);

/* Ends the service; a caller whose answer is held back gets none. */
void audioclip_dbus_teardown();

/*
 * The play request has ended: answers the caller that waits for it, if there is one. Called by the
 * player, with its locks held.
 */
void audioclip_dbus_notify_request_finished();
