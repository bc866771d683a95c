#include "event_template.h"

#include "event_values.h"

struct EventTemplate *event_template_new(void)
{
    struct EventTemplate *event_template = g_new0(struct EventTemplate, 1);
    event_template->values = event_values_new();
    return event_template;
}

void event_template_free(struct EventTemplate *event_template)
{
    if (event_template) {
        g_hash_table_unref(event_template->values);
        g_free(event_template);
    }
}

bool event_template_add_key_value(struct EventTemplate *event_template, const char *key,
                                  const void *value, enum EventValueType type)
{
    return event_template && key && value &&
           event_values_add(event_template->values, key, value, type);
}

bool event_template_add_key(struct EventTemplate *event_template, const char *key,
                            enum EventValueType type)
{
    return event_template && key && event_values_add(event_template->values, key, NULL, type);
}

static bool has_key(const struct EventTemplate *event_template, const char *key)
{
    return event_template && key && g_hash_table_contains(event_template->values, key);
}

/* Nothing on this device uses name spaces, nice names or tags, so they are not stored. */

bool event_template_set_namespace(struct EventTemplate *event_template, const char *key,
                                  const char *name_space)
{
    return has_key(event_template, key) && name_space;
}

bool event_template_set_nice_names(struct EventTemplate *event_template, const char *key,
                                   const char *key_nice_name, const char *value_nice_name)
{
    (void)key_nice_name;
    (void)value_nice_name;
    return has_key(event_template, key);
}

bool event_template_add_tag(struct EventTemplate *event_template, const char *key, const char *tag)
{
    return has_key(event_template, key) && tag && *tag;
}

bool event_template_set_state_key(struct EventTemplate *event_template, const char *key,
                                  EventStateInitialiser initialiser, void *user_data)
{
    if (!has_key(event_template, key) || !initialiser) {
        return false;
    }
    event_template->initialiser = initialiser;
    event_template->user_data = user_data;
    return true;
}
