#pragma once

/* Finding out why the daemon cannot read a file. */

#include <span>
#include <string>
#include <sys/types.h>
#include <systemd/sd-bus.h>

/*
 * Returns why the daemon cannot play the file at `path` or, with `may_be_pattern`, any file that
 * matches `path`, as a message for the user. Returns an empty string if no reason is found; with
 * --host, only the path is checked. `path` is absolute. Sets `is_missing` if there is no such file.
 */
std::string ctl_file_explain(sd_bus *bus, const char *path, bool may_be_pattern, bool *is_missing);

/* Returns what to do about `error`, with which the daemon refuses the file or pattern `path`: a
 * message that shows how to convert a file, or an empty string. */
std::string ctl_file_advise(const char *error, const char *path);

/*
 * Does the same as ctl_file_explain() for the given user, whose name the message shows, by the file
 * modes along the path. Access is assumed for root and wherever there is an access control list,
 * because the modes do not decide there.
 */
std::string ctl_file_explain_for(uid_t uid, std::span<const gid_t> gids, const char *name,
                                 const char *path, bool may_be_pattern, bool *is_missing);
