#pragma once

/* Copying a file into the clip folder. */

#include <string>

/* Returns the path that a copy of `source` has in the clip folder. */
std::string ctl_copy_destination(const char *source);

/*
 * Copies the regular file `source` into the clip folder, readable for everyone, and returns the
 * path of the copy. Never overwrites a file. On failure prints an error, removes the incomplete
 * copy and returns an empty string.
 */
std::string ctl_copy_to_clips(const char *source);

/*
 * Does the same, but gives the copy a temporary name that no pattern such as "*.wav" matches.
 * Rename it to ctl_copy_destination(), or remove it.
 */
std::string ctl_copy_beside_clips(const char *source);
