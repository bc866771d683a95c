#pragma once

/*
 * The machine whose daemon the command uses. With --host it is another one, which is reached over
 * ssh. Then the files, sound cards and configuration of this machine say nothing about the daemon.
 */

#include <string>

/* Makes `machine` the other machine; null is this one. Returns false after printing an error if it
 * cannot be the name of a machine. */
bool ctl_host_set(const char *machine);

/* Returns the other machine as it was given, or null for this one. Valid until the next
 * ctl_host_set(). */
const char *ctl_host(void);

/* Returns `command`, a shell command that a message recommends, with the machine to run it on. */
std::string ctl_host_command(const char *command);

/* Returns a recommended command line of sonobrikctl for this machine or with --host. `arguments`
 * begin with the name of the command. */
std::string ctl_host_self(const char *arguments);

/*
 * Returns true if the daemon's machine can have the file `path`. A relative path is meaningful on
 * this machine only; with --host, prints an error for it and returns false.
 */
bool ctl_host_check_path(const char *path);
