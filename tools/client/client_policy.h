#pragma once

/* Who may call the daemon, as far as a caller can read the stock platform's policy. */

/*
 * Returns who may call `method` of com.vesk.Sonobrik ("PlayClip"), such as "root, and members of
 * the group audio", to be freed with g_free(); null when the policy's file cannot be read or admits
 * nobody. A hint for people: the daemon decides.
 */
char *client_policy_describe(const char *method);

/* For the unit tests only: reads the policy from `path`, which is borrowed. */
void client_policy_set_file(const char *path);
