#pragma once

/*
 * The one PlayClip call whose answer waits for the end of its clip. Main thread only: the state has
 * no lock.
 */

#include <systemd/sd-bus.h>

/* Resets the state: no call is held. */
void held_call_setup();

/* Drops the held call, if any; its caller gets no answer. */
void held_call_teardown();

/*
 * Keeps a reference of its own to `message`, the call that has just started a clip, until
 * held_call_finish().
 */
void held_call_hold(sd_bus_message *message);

/* Returns true while a PlayClip caller waits for its answer. */
bool held_call_is_pending();

/* Answers the held call, if any, with "OK". Logs a failure; the call is released in any case. */
void held_call_finish();
