#include "event_values.h"

struct Value {
    enum EventValueType type;
    int number;
    char *text; /* of a string; owned */
};

static void free_value(void *data)
{
    struct Value *value = data;
    g_free(value->text);
    g_free(value);
}

static void store(struct Value *value, const void *source)
{
    switch (value->type) {
    case EVENT_VALUE_INT:
        value->number = *(const int *)source;
        break;
    case EVENT_VALUE_BOOL:
        value->number = *(const gboolean *)source;
        break;
    case EVENT_VALUE_STRING:
        g_free(value->text);
        value->text = g_strdup(source);
        break;
    }
}

GHashTable *event_values_new(void)
{
    return g_hash_table_new_full(g_str_hash, g_str_equal, g_free, free_value);
}

GHashTable *event_values_copy(GHashTable *values)
{
    GHashTable *copy = event_values_new();
    GHashTableIter iter;
    void *key;
    void *value;
    g_hash_table_iter_init(&iter, values);
    while (g_hash_table_iter_next(&iter, &key, &value)) {
        const struct Value *old = value;
        struct Value *new = g_new(struct Value, 1);
        *new = *old;
        new->text = g_strdup(old->text);
        g_hash_table_insert(copy, g_strdup(key), new);
    }
    return copy;
}

bool event_values_add(GHashTable *values, const char *key, const void *value,
                      enum EventValueType type)
{
    if (g_hash_table_contains(values, key)) {
        return false;
    }
    struct Value *added = g_new0(struct Value, 1);
    added->type = type;
    if (value) {
        store(added, value);
    } else if (type == EVENT_VALUE_STRING) {
        added->text = g_strdup("");
    }
    return g_hash_table_insert(values, g_strdup(key), added);
}

bool event_values_set(GHashTable *values, const char *key, const void *value)
{
    struct Value *found = g_hash_table_lookup(values, key);
    if (found) {
        store(found, value);
    }
    return found != NULL;
}

static int compare_names(const void *a, const void *b)
{
    return g_strcmp0(a, b);
}

char *event_values_print(GHashTable *values)
{
    GString *line = g_string_new(NULL);
    GList *keys = g_list_sort(g_hash_table_get_keys(values), compare_names);
    for (const GList *key = keys; key; key = key->next) {
        const struct Value *value = g_hash_table_lookup(values, key->data);
        g_string_append_printf(line, "%s%s=", line->len ? " " : "", (const char *)key->data);
        if (value->type == EVENT_VALUE_STRING) {
            g_string_append(line, value->text);
        } else {
            g_string_append_printf(line, "%d", value->number);
        }
    }
    g_list_free(keys);
    return g_string_free(line, FALSE);
}
