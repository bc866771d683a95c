#pragma once

/* The keys of an event, with their descriptions and values. This module does not use the bus. */

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event_service.h"

/* A value of one of the three types. It uses one of the two members. */
struct EventValue {
    int number = 0;        /* an integer, or a boolean as 0 or 1 */
    std::string text = {}; /* a string, made valid for the bus */
};

/* The texts are empty if they were not set. */
struct EventKey {
    std::string name;
    EventValueType type;
    EventValue initial = {}; /* 0, false or "" if none was given */
    std::string name_space = {};
    std::string key_nice_name = {};
    std::string value_nice_name = {};
    std::string tag = {};
};

struct EventTemplate {
    std::vector<EventKey> keys; /* in the order in which they were added */
    std::string state_key;      /* empty if the event is not stateful */
    EventStateInitialiser initialiser = nullptr;
    void *initialiser_data = nullptr;
};

struct Event {
    unsigned int id;
    /* Shared with the declared event, because the producer may be closed before the release. */
    std::shared_ptr<const EventTemplate> description;
    std::vector<EventValue> values; /* one for each key of the description */
};

/* Returns the index of the key `name` in the template's keys, or -1. */
int event_template_find_key(const EventTemplate &event_template, std::string_view name);
