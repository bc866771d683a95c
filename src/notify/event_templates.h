#pragma once

/* Builds the templates of an audio output's two events for the event producer. Main thread only. */

#include "audio_output.h"
#include "platform/event_service.h"

G_DEFINE_AUTOPTR_CLEANUP_FUNC(EventTemplate, event_template_free)

/*
 * Returns a new template of "Playing", the stateful event that tells whether the output is playing;
 * free it with event_template_free(). Returns null with a warning on failure.
 */
EventTemplate *event_templates_new_playing(const AudioOutputIds &output);

/* Returns the same for "CurrentlyPlaying", the notification that names the file. */
EventTemplate *event_templates_new_currently_playing(const AudioOutputIds &output);
