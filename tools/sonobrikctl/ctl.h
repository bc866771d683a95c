#pragma once

/* The commands and their exit statuses. */

#include <glib.h>

/* The exit statuses that sonobrikctl(1) documents. After a signal it is 128 plus the signal's
 * number.
 */
enum CtlStatus {
    CTL_OK = 0,
    CTL_FAILED = 1, /* the daemon replied with an error or with something unexpected */
    CTL_USAGE = 2,  /* invalid command line */
    CTL_AWAY = 3,   /* the system bus or the daemon cannot be reached */
    CTL_DENIED = 4,
    CTL_NO_CLIP = 5, /* no such clip or file */
    CTL_SIGNAL = 128,
};

/* A command. */
struct CtlCommand {
    const char *name;
    const char *operands; /* as --help shows them */
    guint min_operands;
    guint max_operands;
    const char *summary;

    /* Runs the command and returns the exit status. `words` is the command line, starting with the
     * command's name. */
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
int ctl_status(const CtlCommand *command, char **words);
int ctl_stop(const CtlCommand *command, char **words);
int ctl_sync(const CtlCommand *command, char **words);
