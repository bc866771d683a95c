#pragma once

/*
 * Event producer service: declares events with their keys, and sends them to listeners on the
 * device.
 *
 * All operations run on the main thread. The service calls callbacks from the main loop, never from
 * inside the operation that received them. The state initialiser is the one exception.
 *
 * Operations that return bool return false, and change nothing, if an argument is null or if the
 * template or event does not have the key. The service copies the strings and values that it needs.
 */

#include <glib.h>
#include <stdbool.h>

G_BEGIN_DECLS

struct EventProducer; /* an open connection to the event system */
struct EventTemplate; /* the description of an event that is to be declared */
struct Event;         /* one occurrence of a declared event, with values for its keys */

/* The type of a key's value. The value pointers of this service point to such a value. */
enum EventValueType {
    EVENT_VALUE_INT = 1,  /* const int * */
    EVENT_VALUE_BOOL = 2, /* const gboolean * */
    /*
     * const char *, the text itself. The daemon sends file names, which need not be UTF-8. A
     * platform that can only send UTF-8 replaces the invalid bytes and does not refuse the text.
     */
    EVENT_VALUE_STRING = 4,
};

/* Called once the event system has accepted the declaration of the event `id`. */
typedef void (*EventDeclaredCallback)(unsigned int id, void *user_data);

/*
 * Sets the state key of `event` to its value before the first send. Must not keep `event`. Returns
 * false on failure; the event is then not declared.
 */
typedef bool (*EventStateInitialiser)(struct Event *event, void *user_data);

/*
 * Called when the event `id` was sent or could not be sent. `error` is null if it was sent;
 * otherwise it gives the reason, and the callback must free it.
 */
typedef void (*EventSentCallback)(unsigned int id, void *user_data, GError *error);

/*
 * Opens a producer. `name` consists of letters, digits and underscores and does not begin with a
 * digit. Only one producer of a name can be open on the device.
 *
 * Returns null and logs the reason if the name is null, invalid or in use, or if the event system
 * cannot be reached. The caller closes the producer with event_service_close().
 */
struct EventProducer *event_service_open(const char *name);

/*
 * Withdraws the producer's events and frees the producer. Callbacks that are still pending are not
 * called. Ignores null.
 */
void event_service_close(struct EventProducer *producer);

/* Returns an empty template. The caller frees it with event_template_free(). */
struct EventTemplate *event_template_new(void);

/* Frees the template. Ignores null. */
void event_template_free(struct EventTemplate *event_template);

/*
 * Adds a key with an initial value, which it copies. `value` points to a value of the type `type`.
 * Returns false if the template already has the key, or if the event system cannot use the name.
 */
bool event_template_add_key_value(struct EventTemplate *event_template, const char *key,
                                  const void *value, enum EventValueType type);

/*
 * Adds a key without an initial value: it is 0, false or "" until a value is set. Returns false
 * under the same conditions as event_template_add_key_value().
 */
bool event_template_add_key(struct EventTemplate *event_template, const char *key,
                            enum EventValueType type);

/* Sets the name space of a topic key ("topic0", "topic1" and so on). */
bool event_template_set_namespace(struct EventTemplate *event_template, const char *key,
                                  const char *name_space);

/* Sets human-readable names for the key and for its value. Either name may be null. */
bool event_template_set_nice_names(struct EventTemplate *event_template, const char *key,
                                   const char *key_nice_name, const char *value_nice_name);

/*
 * Sets the key's tag, which tells listeners what the key is for: "onvif-source" or "onvif-data". A
 * key has at most one tag. Returns false if the tag is empty or if the key already has one.
 */
bool event_template_add_tag(struct EventTemplate *event_template, const char *key, const char *tag);

/*
 * Makes the event stateful: listeners that join late can read the value of `key`, its state. The
 * declaring operation calls `initialiser` with `user_data` before it returns. `user_data` must stay
 * valid until then.
 */
bool event_template_set_state_key(struct EventTemplate *event_template, const char *key,
                                  EventStateInitialiser initialiser, void *user_data);

/*
 * Declares an event and sends nothing. The template still belongs to the caller, who may free it
 * afterwards.
 *
 * Returns the event's id, which is at least 1. Returns 0 on failure, and logs the reason unless an
 * argument is null.
 */
unsigned int event_service_declare(struct EventProducer *producer,
                                   const struct EventTemplate *event_template);

/*
 * Declares an event like event_service_declare(), then calls `callback` with `user_data` once the
 * event system has accepted the declaration. If this operation returns 0, `callback` is not called.
 * A null `callback` is allowed.
 */
unsigned int event_service_declare_notify(struct EventProducer *producer,
                                          const struct EventTemplate *event_template,
                                          EventDeclaredCallback callback, void *user_data);

/*
 * Returns a new occurrence of the event `id`. Its keys have the values that were sent last, or
 * their initial values before the first send. Returns null for an unknown id or a null producer.
 * The caller frees it with event_release(), which it may also do after closing the producer.
 */
struct Event *event_service_prepare(struct EventProducer *producer, unsigned int id);

/*
 * Does the same as event_service_prepare(). A platform may wait for its event system in
 * event_service_prepare() and return without waiting here.
 */
struct Event *event_service_prepare_async(struct EventProducer *producer, unsigned int id);

/* Sets `key` of `event` to the value that `value` points to, which has the type of the key. */
bool event_value_set(struct Event *event, const char *key, const void *value);

/*
 * Sends `event` without waiting until listeners have it. Events arrive in the order in which they
 * were sent. `event` still belongs to the caller.
 *
 * `callback` receives the outcome; it may be null. If sending fails, the service drops the event
 * and its values and does not send them later. If the connection to the event system was lost, each
 * send tries to reconnect. Does nothing if `producer` or `event` is null.
 */
void event_service_send_async(struct EventProducer *producer, const struct Event *event,
                              EventSentCallback callback, void *user_data);

/* Frees an occurrence. Ignores null. */
void event_release(struct Event *event);

G_END_DECLS
