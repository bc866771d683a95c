#pragma once

/*
 * The access policy's file: a key file whose groups are named by an action or by a dotted prefix of
 * one, and list who may perform it:
 *
 *     [com.vesk.Sonobrik]
 *     users=root;1000
 *     groups=audio
 *
 * The most specific group that exists decides alone. Names and numbers may be mixed; `*` in `users`
 * is everybody. Where there is no file, uid 0 may do everything and nobody else anything.
 */

#include <glib.h>
#include <span>
#include <sys/types.h>

/* Reads the file. False, with path and reason in `error`, when there is one that cannot be used. */
bool access_policy_file_load(GError **error);

/*
 * May `uid`, a member of the groups `gids`, perform `action`? Reads the file again if it changed;
 * one that became unusable admits uid 0 only, and is logged once. On refusal sets `error` to a text
 * with the uid, the action, and what in the file decided.
 */
bool access_policy_file_admits(uid_t uid, std::span<const gid_t> gids, const char *action,
                               GError **error);

/* For the unit tests and the fuzzers only: reads the policy from `path`, which is borrowed. */
void access_policy_file_set_path(const char *path);
