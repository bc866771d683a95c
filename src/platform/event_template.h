#pragma once

/* What an event is made of: its keys with their descriptions and values. Nothing of the bus. */

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event_service.h"

/* A value of one of the three types; the other member is unused. Text is fit for the bus. */
struct EventValue {
    int number = 0; /* booleans too: 0 or 1 */
    std::string text = {};
};

struct EventKey {
    std::string name;
    EventValueType type;
    EventValue initial = {}; /* the type's empty value if none was given */
    std::string name_space = {};
    std::string key_nice_name = {}; /* empty: none */
    std::string value_nice_name = {};
    std::string tag = {}; /* empty: none */
};

struct EventTemplate {
    std::vector<EventKey> keys; /* in the order in which they were added */
    std::string state_key;      /* empty: not stateful */
    EventStateInitialiser initialiser = nullptr;
    void *initialiser_data = nullptr;
};

struct Event {
    unsigned int id;
    /* Shared with the declaration, and so valid when the producer is closed before the release. */
    std::shared_ptr<const EventTemplate> description;
    std::vector<EventValue> values; /* one for each key of the description */
};

/* Returns the place of `name` in the template's keys, or -1. */
int event_template_find_key(const EventTemplate &event_template, std::string_view name);
