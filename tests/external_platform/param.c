/* Reads the parameters from a constant table: this device has no settings file. */

#include "platform/param.h"

#include <errno.h>

static const struct {
    const char *name;
    const char *value;
} parameters[] = {
    {"root.SonoBrik.MaxGroups", "2"},
};

void param_reset_options(struct ParamOptions *options)
{
    if (options) {
        options->flags = 0;
    }
}

char *param_get(const char *name, const struct ParamOptions *options, int *error_code)
{
    if (!error_code) {
        return NULL;
    }
    if (!name || !options) {
        *error_code = EINVAL;
        return NULL;
    }
    for (size_t i = 0; i < G_N_ELEMENTS(parameters); i++) {
        if (g_str_equal(parameters[i].name, name)) {
            return g_strdup(parameters[i].value);
        }
    }
    *error_code = ENOENT;
    return NULL;
}
