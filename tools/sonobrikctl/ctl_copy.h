#pragma once

/* Copying a file into the clip folder. */

#include <string>

/*
 * Copies the regular file `source` into the clip folder, readable for everyone, and returns the
 * path of the copy. Never overwrites a file. On failure prints an error, removes the incomplete
 * copy and returns an empty string.
 */
std::string ctl_copy_to_clips(const char *source);
