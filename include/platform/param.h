#pragma once

/*
 * Parameter service: the device's parameters, read by dotted name ("root.SonoBrik.MaxGroups").
 *
 * Called on the main thread.
 */

#include <glib.h>

G_BEGIN_DECLS

/* How a parameter is read. Only param_reset_options() fills it; its layout is the service's own. */
struct ParamOptions {
    unsigned int flags; /* reserved, 0 */
};

/* Fills `options` with the defaults; null does nothing. */
void param_reset_options(struct ParamOptions *options);

/*
 * Reads the parameter `name`. Returns its value as a new string (g_free()), possibly empty, and
 * leaves `*error_code` alone; or returns null and sets `*error_code` to an errno value: ENOENT for
 * an unknown name, EINVAL for a null argument, otherwise why the parameters cannot be read. A null
 * `error_code` gives null. The parameters are read anew at each call, so an edit counts at once.
 */
char *param_get(const char *name, const struct ParamOptions *options, int *error_code);

G_END_DECLS
