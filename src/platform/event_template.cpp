#include "event_template.h"

#include "platform_text.h"

namespace
{

/* Reads the value that `value` points to; EventValueType lists the C types. */
EventValue read_value(EventValueType type, const void *value)
{
    switch (type) {
    case EVENT_VALUE_INT:
        return {.number = *static_cast<const int *>(value)};
    case EVENT_VALUE_BOOL:
        return {.number = *static_cast<const gboolean *>(value) ? 1 : 0};
    case EVENT_VALUE_STRING:
        break;
    }
    g_autofree char *text = platform_text_make_valid(static_cast<const char *>(value));
    return {.text = text};
}

bool is_type(EventValueType type)
{
    return type == EVENT_VALUE_INT || type == EVENT_VALUE_BOOL || type == EVENT_VALUE_STRING;
}

/*
 * Returns true if the bus can carry the name. An invalid name is refused and not repaired, because
 * callers look the key up by the name that they gave.
 */
bool is_name(const char *name)
{
    g_autofree char *valid = platform_text_make_valid(name);
    return *name && g_str_equal(valid, name);
}

bool add_key(EventTemplate *event_template, const char *key, EventValueType type, const void *value)
{
    if (!event_template || !key || !is_name(key) || !is_type(type) ||
        event_template_find_key(*event_template, key) >= 0) {
        return false;
    }
    EventKey added = {.name = key, .type = type};
    if (value) {
        added.initial = read_value(type, value);
    }
    event_template->keys.push_back(std::move(added));
    return true;
}

EventKey *find_key(EventTemplate *event_template, const char *key)
{
    if (!event_template || !key) {
        return nullptr;
    }
    const int place = event_template_find_key(*event_template, key);
    return place >= 0 ? &event_template->keys[static_cast<size_t>(place)] : nullptr;
}

void set_text(std::string *target, const char *text)
{
    g_autofree char *valid = platform_text_make_valid(text);
    target->assign(valid ? valid : "");
}

} // namespace

int event_template_find_key(const EventTemplate &event_template, std::string_view name)
{
    for (size_t i = 0; i < event_template.keys.size(); i++) {
        if (event_template.keys[i].name == name) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

EventTemplate *event_template_new(void)
{
    return new EventTemplate;
}

void event_template_free(EventTemplate *event_template)
{
    delete event_template;
}

bool event_template_add_key_value(EventTemplate *event_template, const char *key, const void *value,
                                  EventValueType type)
{
    return value && add_key(event_template, key, type, value);
}

bool event_template_add_key(EventTemplate *event_template, const char *key, EventValueType type)
{
    return add_key(event_template, key, type, nullptr);
}

bool event_template_set_namespace(EventTemplate *event_template, const char *key,
                                  const char *name_space)
{
    EventKey *found = find_key(event_template, key);
    if (!found || !name_space) {
        return false;
    }
    set_text(&found->name_space, name_space);
    return true;
}

bool event_template_set_nice_names(EventTemplate *event_template, const char *key,
                                   const char *key_nice_name, const char *value_nice_name)
{
    EventKey *found = find_key(event_template, key);
    if (!found) {
        return false;
    }
    set_text(&found->key_nice_name, key_nice_name);
    set_text(&found->value_nice_name, value_nice_name);
    return true;
}

bool event_template_add_tag(EventTemplate *event_template, const char *key, const char *tag)
{
    EventKey *found = find_key(event_template, key);
    if (!found || !tag || !*tag || !found->tag.empty()) {
        return false;
    }
    set_text(&found->tag, tag);
    return true;
}

bool event_template_set_state_key(EventTemplate *event_template, const char *key,
                                  EventStateInitialiser initialiser, void *user_data)
{
    const EventKey *found = find_key(event_template, key);
    if (!found || !initialiser) {
        return false;
    }
    event_template->state_key = found->name;
    event_template->initialiser = initialiser;
    event_template->initialiser_data = user_data;
    return true;
}

bool event_value_set(Event *event, const char *key, const void *value)
{
    if (!event || !key || !value) {
        return false;
    }
    const int place = event_template_find_key(*event->description, key);
    if (place < 0) {
        return false;
    }
    const auto index = static_cast<size_t>(place);
    event->values[index] = read_value(event->description->keys[index].type, value);
    return true;
}

void event_release(Event *event)
{
    delete event;
}
