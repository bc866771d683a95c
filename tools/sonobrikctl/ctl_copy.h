#pragma once

/* Copying a file into the clip folder. */

#include <string>

/* Returns the path that a copy of `source` has in the clip folder. */
std::string ctl_copy_destination(const char *source);

/*
 * The two functions below copy a file. Until ctl_copy_keep() or ctl_copy_remove(), SIGHUP, SIGINT,
 * SIGPIPE and SIGTERM remove the copy before they end the program. There can be one such copy at a
 * time.
 */

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

/* Lets the copy stay if a signal ends the program. */
void ctl_copy_keep(void);

/* Returns true after ctl_copy_keep(), until the next copy. */
bool ctl_copy_is_kept(void);

/* Removes the copy at `path`. */
void ctl_copy_remove(const std::string &path);
