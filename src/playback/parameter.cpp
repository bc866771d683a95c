#include "parameter.h"

#include <glib.h>

#include "platform/param.h"

char *get_parameter(const char *name)
{
    if (!name) {
        return nullptr;
    }
    ParamOptions options;
    param_reset_options(&options);
    int error_code = 0;
    g_autofree char *value = param_get(name, &options, &error_code);
    if (error_code != 0 || !value) {
        g_warning("%sFailed to get parameter = %s, errcode = %d", "", name, error_code);
        return nullptr;
    }
    return g_steal_pointer(&value);
}

bool parameter_equals(const char *name, const char *expected)
{
    g_autofree char *value = get_parameter(name);
    return value && g_strcmp0(value, expected) == 0;
}
