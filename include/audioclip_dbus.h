#pragma once

/*
 * The main D-Bus service: "com.vesk.Sonobrik" on the system bus, with the methods that play, stop
 * and add clips, and the check of each caller's rights. Called on the main thread.
 */

#include "audio_clip.h"

/*
 * Starts the service; its methods use `clip`, which must outlive it. Returns a negative value, with
 * a log line, on failure; call audioclip_dbus_teardown() in that case too.
 */
int audioclip_dbus_setup(AudioClip *clip);

/* Stops the service. A PlayClip caller that still waits gets no answer. */
void audioclip_dbus_teardown();

/*
 * Answers the PlayClip caller that waits for the end of the request, if any. The player calls this,
 * holding its locks, whenever a request has ended.
 */
void audioclip_dbus_notify_request_finished();
