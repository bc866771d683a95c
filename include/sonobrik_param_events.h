#pragma once

/*
 * Configuration change notifications: tell the device's configuration system of clip records that
 * were added, as entries of the legacy configuration interface. Called on the main thread. Failures
 * are logged and reported, and change nothing else.
 */

#include <glib.h>

#include "platform/event_service.h"

/*
 * Creates the change notifier of an event producer, which stays the caller's. Returns false, with a
 * warning, when that or the declaration fails; after the latter the notifier is used all the same.
 */
bool sonobrik_param_events_setup(EventProducer *producer);

/* Releases the notifier, if there is one. */
void sonobrik_param_events_teardown();

/*
 * Announces the entry of a clip, with those of its texts that are not null: as changed, or as new.
 * Returns false, with a warning, on failure.
 */
bool sonobrik_param_events_send(bool is_change, gint32 number, const char *location,
                                const char *name, const char *type);

/* Announces a new clip. Returns false, and sends nothing, if a text is null. */
bool sonobrik_param_events_register_new(gint32 number, const char *location, const char *name,
                                        const char *type);

/* Announces a changed clip, with the texts that changed. Returns false if all are null. */
bool sonobrik_param_events_register_change(gint32 number, const char *location, const char *name,
                                           const char *type);
