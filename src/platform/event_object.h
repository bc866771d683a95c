#pragma once

/* The object on the bus that represents a declared event. Main thread only. */

#include <glib.h>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "event_template.h"

struct EventObject {
    unsigned int id;
    std::string path;
    std::shared_ptr<const EventTemplate> description;
    std::vector<EventValue> values; /* sent last, or the initial values before the first send */
    guint64 last_sent;              /* monotonic clock in us; 0 before the first send */
    sd_bus_slot *slot;              /* owned; null while the object is not on a bus */
    sd_bus_slot *time_slot;         /* the same for the interface with the time */
};

/*
 * Publishes `object` on `bus`. The address of `object` must not change until it is withdrawn. On
 * failure returns a negative errno, and nothing of `object` stays on the bus.
 */
int event_object_publish(EventObject *object, sd_bus *bus);

/* Removes `object` from the bus, if it is on one. */
void event_object_withdraw(EventObject *object);

/* Sends the signal of `object` with `values` on `bus`. Returns a negative errno on failure. */
int event_object_send(const EventObject &object, const std::vector<EventValue> &values,
                      sd_bus *bus);
