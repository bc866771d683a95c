/* Writes each event that is sent to the log, at level notice: "event topic0=SonoBrik ...". */

#include "platform/event_service.h"

#include <string.h>

#include "event_template.h"
#include "event_values.h"

struct EventProducer {
    char *name;
    GPtrArray *events;   /* for each event the values sent last; the event `id` is at id - 1 */
    GHashTable *pending; /* source ids of the callbacks that are still to be called */
};

struct Event {
    unsigned int id;
    GHashTable *values; /* owned */
};

/* A callback that the main loop will call. Either `declared` or `sent` is set. */
struct Callback {
    struct EventProducer *producer;
    unsigned int source;
    unsigned int id; /* of the event */
    EventDeclaredCallback declared;
    EventSentCallback sent;
    void *user_data;
};

static gboolean run_callback(void *data)
{
    const struct Callback *callback = data;
    g_hash_table_remove(callback->producer->pending, GUINT_TO_POINTER(callback->source));
    if (callback->declared) {
        callback->declared(callback->id, callback->user_data);
    } else {
        callback->sent(callback->id, callback->user_data, NULL);
    }
    return G_SOURCE_REMOVE;
}

static void post(const struct Callback *callback)
{
    struct Callback *copy = g_memdup2(callback, sizeof *callback);
    copy->source = g_idle_add_full(G_PRIORITY_DEFAULT, run_callback, copy, g_free);
    g_hash_table_add(copy->producer->pending, GUINT_TO_POINTER(copy->source));
}

/* Names of the open producers. */
static GHashTable *open_names;

static bool is_name(const char *name)
{
    return name && *name && !g_ascii_isdigit(*name) &&
           strspn(name, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
               strlen(name);
}

struct EventProducer *event_service_open(const char *name)
{
    if (!is_name(name)) {
        g_warning("'%s' is not a name for a producer of events", name ? name : "");
        return NULL;
    }
    if (!open_names) {
        open_names = g_hash_table_new(g_str_hash, g_str_equal);
    }
    if (g_hash_table_contains(open_names, name)) {
        g_warning("the producer of events '%s' is already open", name);
        return NULL;
    }
    struct EventProducer *producer = g_new0(struct EventProducer, 1);
    producer->name = g_strdup(name);
    g_hash_table_add(open_names, producer->name);
    producer->events = g_ptr_array_new_with_free_func((GDestroyNotify)g_hash_table_unref);
    producer->pending = g_hash_table_new(NULL, NULL);
    return producer;
}

void event_service_close(struct EventProducer *producer)
{
    if (!producer) {
        return;
    }
    GHashTableIter iter;
    void *source;
    g_hash_table_iter_init(&iter, producer->pending);
    while (g_hash_table_iter_next(&iter, &source, NULL)) {
        g_source_remove(GPOINTER_TO_UINT(source));
    }
    g_hash_table_unref(producer->pending);
    g_ptr_array_unref(producer->events);
    g_hash_table_remove(open_names, producer->name);
    g_free(producer->name);
    g_free(producer);
}

unsigned int event_service_declare(struct EventProducer *producer,
                                   const struct EventTemplate *event_template)
{
    if (!producer || !event_template) {
        return 0;
    }
    struct Event initial = {
        .id = producer->events->len + 1,
        .values = event_values_copy(event_template->values),
    };
    if (event_template->initialiser &&
        !event_template->initialiser(&initial, event_template->user_data)) {
        g_warning("the initialiser of event %u failed", initial.id);
        g_hash_table_unref(initial.values);
        return 0;
    }
    g_ptr_array_add(producer->events, initial.values);
    return initial.id;
}

unsigned int event_service_declare_notify(struct EventProducer *producer,
                                          const struct EventTemplate *event_template,
                                          EventDeclaredCallback callback, void *user_data)
{
    const unsigned int id = event_service_declare(producer, event_template);
    if (id != 0 && callback) {
        const struct Callback due = {
            .producer = producer, .id = id, .declared = callback, .user_data = user_data};
        post(&due);
    }
    return id;
}

struct Event *event_service_prepare(struct EventProducer *producer, unsigned int id)
{
    if (!producer || id == 0 || id > producer->events->len) {
        return NULL;
    }
    struct Event *event = g_new0(struct Event, 1);
    event->id = id;
    event->values = event_values_copy(producer->events->pdata[id - 1]);
    return event;
}

struct Event *event_service_prepare_async(struct EventProducer *producer, unsigned int id)
{
    return event_service_prepare(producer, id);
}

bool event_value_set(struct Event *event, const char *key, const void *value)
{
    return event && key && value && event_values_set(event->values, key, value);
}

void event_service_send_async(struct EventProducer *producer, const struct Event *event,
                              EventSentCallback callback, void *user_data)
{
    if (!producer || !event) {
        return;
    }
    g_autofree char *line = event_values_print(event->values);
    g_message("event %s", line);
    g_hash_table_unref(producer->events->pdata[event->id - 1]);
    producer->events->pdata[event->id - 1] = event_values_copy(event->values);
    if (callback) {
        const struct Callback due = {
            .producer = producer, .id = event->id, .sent = callback, .user_data = user_data};
        post(&due);
    }
}

void event_release(struct Event *event)
{
    if (event) {
        g_hash_table_unref(event->values);
        g_free(event);
    }
}
