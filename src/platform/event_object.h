#pragma once

/* A declared event as an object on the bus. */

#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "event_template.h"

/* A declared event, with the values that were sent last, or else those that it started with. */
struct EventObject {
    unsigned int id;
    std::string path;
    std::shared_ptr<const EventTemplate> description;
    std::vector<EventValue> values;
    sd_bus_slot *slot; /* owned; null while it is on no bus */
};

/* Makes `object`, which must stay where it is, visible on `bus`. Returns a negative errno on
 * failure. */
int event_object_publish(EventObject *object, sd_bus *bus);

/* Takes it off the bus again, if it is on one. */
void event_object_withdraw(EventObject *object);

/* Sends the signal of `object` with `values` on `bus`. Returns a negative errno on failure. */
int event_object_send(const EventObject &object, const std::vector<EventValue> &values,
                      sd_bus *bus);
