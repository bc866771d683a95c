#pragma once

/* Copying a file to where clips have to lie. */

#include <string>

/*
 * Copies the regular file `source` into the clips' folder, readable for everybody, and returns the
 * path of the copy. Never writes to a file that is there already. Empty, after a line on standard
 * error and without a rest of a copy, if that fails.
 */
std::string ctl_copy_to_clips(const char *source);
