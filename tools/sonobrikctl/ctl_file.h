#pragma once

/* Why the daemon cannot read a file. */

#include <span>
#include <sys/types.h>
#include <systemd/sd-bus.h>

/*
 * Returns what keeps the daemon from playing the file at `path`, an absolute one, or the files of a
 * pattern there, to be freed with g_free(); null if nothing is known to. `is_missing` says whether
 * there is no such file.
 */
char *ctl_file_explain(sd_bus *bus, const char *path, bool *is_missing);

/*
 * The same for a user of whom `name` is the name for people, by the modes of all folders on the
 * way. Root, and an access control list on the way, are taken to admit: what cannot be known is not
 * said.
 */
char *ctl_file_explain_for(uid_t uid, std::span<const gid_t> gids, const char *name,
                           const char *path, bool *is_missing);
