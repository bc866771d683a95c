#pragma once

/*
 * Access policy service: decides who may call which method of the daemon.
 *
 * All operations run on the main thread. On failure they set `error`, if it is not null, to a new
 * GLib error; the caller frees it.
 */

#include <glib.h>
#include <stdbool.h>

G_BEGIN_DECLS

/*
 * Prepares the service. The daemon calls it once, before the first check. Returns false and sets
 * `error` if the policy cannot be used; the daemon then exits.
 */
bool access_policy_init(GError **error);

/*
 * Returns true if the bus client `sender` is allowed to perform `action`.
 *
 * `sender` is the client's unique bus name, such as ":1.42". `action` is the dotted name of a
 * method, such as "com.vesk.Sonobrik.PlayClip". The service copies what it needs of both.
 *
 * Returns false and sets `error` if the client is not allowed, if the client cannot be identified,
 * if `sender` is not a unique name, or if an argument is null. The daemon logs the error's message.
 * The client never sees it; the client only learns that access was denied.
 *
 * It may ask the message bus about the sender and wait for the answer. The daemon does nothing else
 * during that time.
 */
bool access_policy_check(const char *sender, const char *action, GError **error);

G_END_DECLS
