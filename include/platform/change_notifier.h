#pragma once

/*
 * Change notifier: announces changes of a D-Bus service's configuration to components that cache
 * that configuration.
 *
 * All operations run on the main thread. Those with an `error` argument return false or null on
 * failure and set `error`, if it is not null, to a new GLib error; the caller frees it. A null
 * notifier is a failure too; operations without an `error` argument ignore it. The service copies
 * the strings that it needs.
 */

#include <glib.h>
#include <stdbool.h>

#include "platform/event_service.h"

G_BEGIN_DECLS

struct ChangeNotifier;

/*
 * Creates a notifier. `source_name` says where the changes come from; it consists of letters,
 * digits and underscores. `producer` belongs to the caller and must outlive the notifier. Returns
 * null and sets `error` on failure. The caller frees the notifier with change_notifier_free().
 */
struct ChangeNotifier *change_notifier_new(const char *source_name, struct EventProducer *producer,
                                           GError **error);

/* Frees the notifier. Ignores null. */
void change_notifier_free(struct ChangeNotifier *notifier);

/*
 * Declares where the changes will happen: in the interface `interface` of the object `object_path`
 * of the D-Bus service `service`. Returns false and sets `error` if one of the three names is null
 * or invalid. Publishes nothing.
 */
bool change_notifier_declare(struct ChangeNotifier *notifier, const char *service,
                             const char *object_path, const char *interface, GError **error);

/* Starts the description of a change. Drops the previous description if it was not sent. */
void change_notifier_begin_change(struct ChangeNotifier *notifier);

/*
 * Adds a key and its value to the description. Listeners get the pairs in the order of the calls.
 * The service escapes both texts as its transport requires. Ignores null arguments.
 */
void change_notifier_append_pair(struct ChangeNotifier *notifier, const char *key,
                                 const char *value);

/*
 * Publishes the description and ends it, whether or not it could be published. It refers to the
 * entry `entry_path` of the given service, object and interface. `is_change` is true if the entry
 * existed before and false if it is new. Returns false and sets `error` on failure, for example if
 * no description was started.
 */
bool change_notifier_send(struct ChangeNotifier *notifier, const char *service,
                          const char *object_path, const char *interface, const char *entry_path,
                          bool is_change, GError **error);

G_END_DECLS
