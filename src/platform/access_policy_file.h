#pragma once

/*
 * The file of the access policy. It is a key file. A group is named by an action or by a dotted
 * prefix of an action, and lists the users and groups that may perform it:
 *
 *     [com.vesk.Sonobrik]
 *     users=root;1000
 *     groups=sonobrik-play
 *
 * If several groups match an action, only the most specific one counts. The lists contain names or
 * numbers; `*` in `users` means everybody. If the file does not exist, only uid 0 is allowed.
 *
 * Main thread only.
 */

#include <glib.h>
#include <span>
#include <sys/types.h>

/*
 * Reads the file. A missing file is not an error. Returns false if the file exists but cannot be
 * used, and sets `error` to a text with its path and the reason.
 */
bool access_policy_file_load(GError **error);

/*
 * Returns true if `uid`, a member of the groups `gids`, may perform `action`. If not, sets `error`
 * to a text with the uid, the action, and the group of the file that decided.
 *
 * Reads the file again if it has changed. If it can then no longer be used, logs that once and
 * allows only uid 0.
 */
bool access_policy_file_admits(uid_t uid, std::span<const gid_t> gids, const char *action,
                               GError **error);

/* For the unit tests and the fuzzers only: reads the policy from `path`. Keeps the pointer. */
void access_policy_file_set_path(const char *path);
