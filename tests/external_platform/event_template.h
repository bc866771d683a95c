#pragma once

/* What event_service.c looks up in a template. */

#include "platform/event_service.h"

struct EventTemplate {
    GHashTable *values;                /* see event_values.h; owned */
    EventStateInitialiser initialiser; /* null unless the event is stateful */
    void *user_data;
};
