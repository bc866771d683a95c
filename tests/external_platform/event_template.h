#pragma once

/* The members of a template, which event_service.c reads. */

#include "platform/event_service.h"

struct EventTemplate {
    GHashTable *values;                /* see event_values.h; owned */
    EventStateInitialiser initialiser; /* null unless the event is stateful */
    void *user_data;
};
