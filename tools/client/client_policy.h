#pragma once

/* The stock platform's access policy, if the caller can read it. */

#include <string>

/*
 * Returns who may call `method` of com.vesk.Sonobrik ("PlayClip"), such as "root and members of
 * group 'sonobrik-play'". Returns an empty string if the policy file cannot be read or allows
 * nobody. Use the result only in messages: the daemon makes the decision.
 */
std::string client_policy_describe(const char *method);

/* For unit tests only. Makes client_policy_describe() read `path`, which must stay valid. */
void client_policy_set_file(const char *path);
