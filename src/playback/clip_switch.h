#pragma once

/*
 * The switch of a chain from one clip to the next. Limits how often a chain switches, and keeps a
 * stop out of a switch.
 *
 * A switch happens on a streaming thread: playbin announces it with "about-to-finish", takes a lock
 * of its own and sets up the next clip, which emits "source-setup". If the state of playbin changes
 * in between, playbin of GStreamer 1.22 can switch once more, back to the clip whose thread does
 * the switch, and locks up waiting for that thread.
 */

#include <glib.h>

struct ClipSwitch {
    GMutex lock; /* guards the fields below; no other lock is taken while it is held */
    GCond changed;
    bool closed;          /* no switch may begin */
    bool begun;           /* a switch has begun, and playbin may not have taken its lock yet */
    gint64 earliest_time; /* of the next switch, in monotonic microseconds */
};

void clip_switch_init(ClipSwitch *clip_switch);

/* Frees the lock. No other thread may use the switch any more. */
void clip_switch_clear(ClipSwitch *clip_switch);

/* Allows switches, for a pipeline that starts to play now. */
void clip_switch_open(ClipSwitch *clip_switch);

/*
 * Begins a switch. Blocks until the chain may switch again, up to 20 ms. Returns false at once if
 * the switch is closed, even if that happens while it waits. Called on a streaming thread.
 */
bool clip_switch_begin(ClipSwitch *clip_switch);

/* Ends a switch, or does nothing if none has begun. Called on any thread. */
void clip_switch_end(ClipSwitch *clip_switch);

/*
 * Prevents further switches. If one has begun, waits until it ends, for at most 500 ms: if playbin
 * fails to set up the next clip, the switch never ends.
 */
void clip_switch_close(ClipSwitch *clip_switch);
