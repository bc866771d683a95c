#pragma once

/*
 * Change notifier: announces changes of the configuration that a D-Bus service holds, to components
 * that cache it.
 *
 * Everything runs on the main thread. Operations with an `error` argument set it on failure; it is
 * the caller's then. Null handles are answered with failure, or with nothing.
 */

#include <glib.h>
#include <stdbool.h>

#include "platform/event_service.h"

G_BEGIN_DECLS

struct ChangeNotifier;

/*
 * Creates a notifier for changes whose source is called `source_name` (letters, digits and
 * underscores), bound to `producer`, which must outlive it. Returns null and sets `error` on
 * failure. Release it with change_notifier_free(), which accepts null.
 */
struct ChangeNotifier *change_notifier_new(const char *source_name, struct EventProducer *producer,
                                           GError **error);
void change_notifier_free(struct ChangeNotifier *notifier);

/* Declares what changes will refer to: an interface of an object of a D-Bus service. */
bool change_notifier_declare(struct ChangeNotifier *notifier, const char *service,
                             const char *object_path, const char *interface, GError **error);

/* Begins a new description of a change; one that was begun before and not sent is dropped. */
void change_notifier_begin_change(struct ChangeNotifier *notifier);

/* Adds one value to the description, in the order of the calls; the service escapes it as it needs.
 */
void change_notifier_append_pair(struct ChangeNotifier *notifier, const char *key,
                                 const char *value);

/*
 * Publishes the description as a change (`is_change`) or an addition of the entry `entry_path`, and
 * ends it. Returns false and sets `error` on failure.
 */
bool change_notifier_send(struct ChangeNotifier *notifier, const char *service,
                          const char *object_path, const char *interface, const char *entry_path,
                          bool is_change, GError **error);

G_END_DECLS
