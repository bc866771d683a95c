#pragma once

/* The two events of an audio output, as templates for the event producer. Main thread only. */

#include <glib.h>

#include "platform/event_service.h"

G_DEFINE_AUTOPTR_CLEANUP_FUNC(EventTemplate, event_template_free)

/*
 * "Playing": the stateful event that says whether the output plays. Returns a new template, to be
 * freed with event_template_free(), or null with a warning.
 */
EventTemplate *event_templates_new_playing(gint32 audio_output, gint32 audio_device_id,
                                           gint32 audio_output_id);

/* "CurrentlyPlaying": the notification that names the file; as above. */
EventTemplate *event_templates_new_currently_playing(gint32 audio_output, gint32 audio_device_id,
                                                     gint32 audio_output_id);
