#pragma once

/* The command line of a command. */

#include <functional>
#include <glib.h>
#include <systemd/sd-bus.h>

#include "ctl.h"

/* Returns the description of an option without a value. The option sets `is_given`. `letter` is its
 * short form, or 0. */
GOptionEntry ctl_options_flag(const char *name, char letter, const char *help, gboolean *is_given);

/*
 * Returns the description of an option with a value, which --help shows as `placeholder`. The
 * option sets `value` to any bytes; free it with g_free().
 */
GOptionEntry ctl_options_value(const char *name, char letter, const char *help,
                               const char *placeholder, char **value);

/* Checks the options and operands of a command. Returns CTL_OK, or the exit status after printing
 * an error. */
using CtlCheck = std::function<int(char **operands)>;

/* Does the work of a command over the bus and returns the exit status. */
using CtlAction = std::function<int(sd_bus *bus, char **operands)>;

/*
 * Runs `command`: parses `words` by `entries`, which end with an empty entry and may be null, and
 * --host, checks the number of operands, calls `check` unless it is empty, connects to the bus and
 * calls `action`. Returns the exit status; every failure has printed an error. Exits after --help.
 */
int ctl_options_run(const CtlCommand *command, char **words, const GOptionEntry *entries,
                    const CtlCheck &check, const CtlAction &action);

/*
 * Parses `text`, the value of `option`, as a decimal number from `min` to `max`. If `text` is null,
 * leaves `number` alone. Returns false after printing an error.
 */
bool ctl_options_number(const char *option, const char *text, gint64 min, gint64 max,
                        gint64 *number);
