#pragma once

/* Reads the configuration files of the platform, and detects that one has changed. */

#include <glib.h>
#include <string>
#include <sys/types.h>

/* What stat() reports about a path. An edit of the file changes at least one member. */
struct ConfigFileStamp {
    int error = 0; /* errno of stat(); if it is not 0, all other members are 0 */
    dev_t device = 0;
    ino_t inode = 0;
    mode_t mode = 0;
    off_t size = 0;
    gint64 modified_nsec = 0;
    gint64 changed_nsec = 0;

    bool operator==(const ConfigFileStamp &) const = default;
};

ConfigFileStamp config_file_stamp(const char *path);

/*
 * Reads the whole file `path` and appends its content to `*content`. Returns 0 or an errno value:
 * EISDIR for a folder, EINVAL for anything else that is not a regular file, and EFBIG for more than
 * 1 MiB. Never waits for a FIFO or a device.
 */
int config_file_read(const char *path, std::string *content);
