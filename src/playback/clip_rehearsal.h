#pragma once

/*
 * A pipeline like that of the player which prepares a clip of silence and drops it. It opens no
 * device and no file of the system. Main thread only.
 */

/*
 * Starts a rehearsal on the default main context, unless there is one. The work is done on the
 * pipeline's threads. Calls `done` at the end, after a failure too, but not after a stop.
 */
void clip_rehearsal_start(void (*done)());

/* Stops the rehearsal if there is one. */
void clip_rehearsal_stop();
