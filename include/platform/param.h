#pragma once

/*
 * Parameter service: reads the device's parameters by their dotted names, such as
 * "root.SonoBrik.MaxGroups".
 *
 * Both operations run on the main thread.
 */

#include <glib.h>

G_BEGIN_DECLS

/* Options for reading a parameter. The daemon passes them on and never looks inside. */
struct ParamOptions {
    unsigned int flags; /* reserved, 0 */
};

/* Sets `options` to the defaults. Ignores null. */
void param_reset_options(struct ParamOptions *options);

/*
 * Reads the parameter `name` with the given `options`. The service reads its source again at each
 * call, so an edit takes effect at once.
 *
 * Returns the value as a new string, which may be empty; the caller frees it with g_free().
 * `*error_code` is then unchanged.
 *
 * Returns null on failure and sets `*error_code` to an errno value: ENOENT for an unknown name,
 * EINVAL for a null argument, or the reason why the parameters cannot be read. If `error_code`
 * itself is null, returns null.
 */
char *param_get(const char *name, const struct ParamOptions *options, int *error_code);

G_END_DECLS
