#pragma once

/*
 * Configuration change notifications: announce new clip records to the device's configuration
 * system, as entries of the legacy configuration interface. Called on the main thread. A failure is
 * logged and has no other effect.
 */

#include <glib.h>

#include "platform/event_service.h"

/*
 * Creates the change notifier for `producer`, which stays the caller's. Returns false with a
 * warning if the notifier cannot be created or declared; one that could not be declared is still
 * used.
 */
bool sonobrik_param_events_setup(EventProducer *producer);

/* Frees the notifier, if there is one. */
void sonobrik_param_events_teardown();

/*
 * Announces clip `number` as changed or as new, with those of its texts that are not null. Returns
 * false with a warning on failure.
 */
bool sonobrik_param_events_send(bool is_change, gint32 number, const char *location,
                                const char *name, const char *type);

/* Announces a new clip. Returns false and sends nothing if a text is null. */
bool sonobrik_param_events_register_new(gint32 number, const char *location, const char *name,
                                        const char *type);

/* Announces a changed clip, with the texts that changed. Returns false if all texts are null. */
bool sonobrik_param_events_register_change(gint32 number, const char *location, const char *name,
                                           const char *type);
