#pragma once

/*
 * The files and folders that make up the ALSA configuration, and whether one of them changed.
 *
 * alsa-lib itself looks again only at its top-level file, not at what that loads: an edit of
 * /etc/asound.conf or a new file in /etc/alsa/conf.d passes unnoticed.
 */

#include <map>
#include <string>
#include <sys/types.h>
#include <time.h>

/* How a file or folder looked; whatever happens to it changes this. */
struct AlsaFileStamp {
    int error; /* errno value where there was nothing to look at; all else is zero then */
    dev_t device;
    ino_t inode;
    mode_t mode;
    off_t size;
    struct timespec modified;
    struct timespec changed;
};

struct AlsaFiles {
    std::string top_level;                       /* as configured: paths separated by colons */
    std::map<std::string, AlsaFileStamp> stamps; /* by path; missing ones may appear */
};

/*
 * Returns all that the configuration consists of now: the top-level files, what their "load" hooks
 * name, what either includes, and so on; the members of folders, and paths where nothing is yet. A
 * path too many does no harm, so parts that cannot be understood are searched as far as possible.
 * What alsa-lib says about such parts goes to the thread's error handler.
 */
AlsaFiles alsa_files_find();

/* Does anything look different from when `files` was returned? */
bool alsa_files_changed(const AlsaFiles &files);
