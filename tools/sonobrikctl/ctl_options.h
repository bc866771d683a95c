#pragma once

/* The command line of one command. */

#include <glib.h>

#include "ctl.h"

/*
 * Reads `words` by `entries`, which may be null, and returns the operands, to be freed with
 * g_strfreev(). There must be at least `least` of them, and at most `most`. Null, after a line on
 * standard error, if the words are not understood. Prints the help and ends the program if that is
 * asked for.
 */
char **ctl_options_read(const CtlCommand *command, char **words, const GOptionEntry *entries,
                        guint least, guint most);

/*
 * Reads the decimal number `text`, an option's value that may be null, which leaves `number` as it
 * is. False, after a line on standard error, if it is none from `least` to `most`.
 */
bool ctl_options_number(const char *option, const char *text, gint64 least, gint64 most,
                        gint64 *number);
