#pragma once

/*
 * Event producer service: declares events with their keys, and sends their changes to whoever
 * listens on the device.
 *
 * Everything runs on the main thread, and every callback is called from the main loop, never from
 * inside the operation that it was given to. Operations that return bool answer false for null
 * arguments, for a key that the template or event does not have, and when memory is short; nothing
 * is changed then.
 */

#include <glib.h>
#include <stdbool.h>

G_BEGIN_DECLS

struct EventProducer; /* an open connection to the event system */
struct EventTemplate; /* the description of an event, being built */
struct Event;         /* one occurrence of a declared event, with values for its keys */

/* What a key holds, and what the value pointers of this service point at. */
enum EventValueType {
    EVENT_VALUE_INT = 1,  /* const int * */
    EVENT_VALUE_BOOL = 2, /* const gboolean * */
    /*
     * const char *: the text itself. A platform whose event system carries UTF-8 only makes other
     * text valid, rather than refuse it: file names are bytes.
     */
    EVENT_VALUE_STRING = 4,
};

/* The event system has taken the declaration of the event `id`. */
typedef void (*EventDeclaredCallback)(unsigned int id, void *user_data);

/* Sets the state key of `event` to the state that holds before anything was sent. */
typedef bool (*EventStateInitialiser)(struct Event *event, void *user_data);

/*
 * The event `id` was sent (`error` null), or could not be sent: `error` says why, and the callback
 * owns it.
 */
typedef void (*EventSentCallback)(unsigned int id, void *user_data, GError *error);

/*
 * Opens a producer called `name` (letters, digits and underscores, no digit first), of which there
 * can be one on the device. Returns null, with a log line, for another name and when the event
 * system cannot be reached. Close it with event_service_close().
 */
struct EventProducer *event_service_open(const char *name);

/*
 * Withdraws the producer's events and frees it; null does nothing. Callbacks that are still due
 * are not called any more.
 */
void event_service_close(struct EventProducer *producer);

/* Returns an empty template; free it with event_template_free(), which accepts null. */
struct EventTemplate *event_template_new(void);
void event_template_free(struct EventTemplate *event_template);

/*
 * Adds a key with the initial value that `value` points at (see EventValueType), which is copied.
 * A key can be added once.
 */
bool event_template_add_key_value(struct EventTemplate *event_template, const char *key,
                                  const void *value, enum EventValueType type);

/* Adds a key without an initial value: it holds 0, false or "" until one is set. */
bool event_template_add_key(struct EventTemplate *event_template, const char *key,
                            enum EventValueType type);

/* Puts `key` into a name space; meant for the topic keys "topic0", "topic1" and so on. */
bool event_template_set_namespace(struct EventTemplate *event_template, const char *key,
                                  const char *name_space);

/* Names for people, for the key and for its value; either may be null. */
bool event_template_set_nice_names(struct EventTemplate *event_template, const char *key,
                                   const char *key_nice_name, const char *value_nice_name);

/*
 * Adds a tag that tells listeners what the key is for ("onvif-source", "onvif-data"). A key has one
 * tag; another one, or an empty one, is refused.
 */
bool event_template_add_tag(struct EventTemplate *event_template, const char *key, const char *tag);

/*
 * Makes the event stateful, with `key` as its state. `initialiser` is called when the event is
 * declared, from inside the declaring operation.
 */
bool event_template_set_state_key(struct EventTemplate *event_template, const char *key,
                                  EventStateInitialiser initialiser, void *user_data);

/*
 * Declares an event; the template stays the caller's. Returns its id, or 0 on failure, which is
 * logged unless an argument is null. Declaring sends nothing. The second form calls `callback` once
 * the event system has taken the declaration, and not at all when the declaration fails.
 */
unsigned int event_service_declare(struct EventProducer *producer,
                                   const struct EventTemplate *event_template);
unsigned int event_service_declare_notify(struct EventProducer *producer,
                                          const struct EventTemplate *event_template,
                                          EventDeclaredCallback callback, void *user_data);

/*
 * Returns a new occurrence of the declared event `id`, holding its present values, which are those
 * that were sent last, whether the event is stateful or not; null for an unknown id. Release it
 * with event_release(). A platform may tell the two apart by whether it waits for its event system;
 * the result is used alike.
 */
struct Event *event_service_prepare(struct EventProducer *producer, unsigned int id);
struct Event *event_service_prepare_async(struct EventProducer *producer, unsigned int id);

/* Sets `key` of `event` to the value that `value` points at (see EventValueType). */
bool event_value_set(struct Event *event, const char *key, const void *value);

/*
 * Sends `event`, which stays the caller's, and returns at once; events leave in the order in which
 * they were sent. `callback`, which may be null, hears the outcome. What could not be sent is not
 * kept for later, nor are its values; an event system that was lost is looked for again with each
 * send.
 */
void event_service_send_async(struct EventProducer *producer, const struct Event *event,
                              EventSentCallback callback, void *user_data);

/* Frees an occurrence; null does nothing. */
void event_release(struct Event *event);

G_END_DECLS
