#pragma once

/*
 * Access policy service: who may call which method of the daemon.
 *
 * All operations are called on the main thread. Errors are GLib errors that the caller owns.
 */

#include <glib.h>
#include <stdbool.h>

G_BEGIN_DECLS

/*
 * Prepares the service; called once, before the first check. Returns false and sets `error` when
 * the policy cannot be used; the daemon then does not start.
 */
bool access_policy_init(GError **error);

/*
 * May the bus client `sender` (its unique name, such as ":1.42"; no other is accepted) perform
 * `action`, the dotted name of a method ("com.vesk.Sonobrik.PlayClip")? A null sender or action is
 * refused, and so is everybody who cannot be identified. On refusal returns false and sets `error`
 * to a text that explains it to whoever reads the log; the caller of the method never sees that
 * text. May ask the message bus about the sender and wait for its answer.
 */
bool access_policy_check(const char *sender, const char *action, GError **error);

G_END_DECLS
