#pragma once

/* The commands, and how each ends. */

#include <glib.h>
#include <systemd/sd-bus.h>

/* The exit statuses, as sonobrikctl(1) has them. One that a signal ended has 128 and its number. */
enum CtlStatus {
    CTL_OK = 0,
    CTL_FAILED = 1, /* the daemon's own error, or an answer that is none */
    CTL_USAGE = 2,  /* the command line is not understood */
    CTL_AWAY = 3,   /* no bus, or no daemon on it */
    CTL_DENIED = 4,
    CTL_NO_CLIP = 5, /* no such clip, no such file */
    CTL_SIGNAL = 128,
};

/* A command. `words` are those of the command line from the command's own name on. */
struct CtlCommand {
    const char *name;
    const char *operands; /* as its help shows them */
    const char *summary;
    int (*run)(const CtlCommand *command, char **words);
};

int ctl_add(const CtlCommand *command, char **words);
int ctl_check(const CtlCommand *command, char **words);
int ctl_list(const CtlCommand *command, char **words);
int ctl_monitor(const CtlCommand *command, char **words);
int ctl_outputs(const CtlCommand *command, char **words);
int ctl_play(const CtlCommand *command, char **words);
int ctl_remove(const CtlCommand *command, char **words);
int ctl_rename(const CtlCommand *command, char **words);
int ctl_stop(const CtlCommand *command, char **words);
int ctl_sync(const CtlCommand *command, char **words);
