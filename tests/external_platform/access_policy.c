/* Allows everybody to call every method except SupportedFile, which nobody may call. */

#include "platform/access_policy.h"

static GQuark error_domain(void)
{
    return g_quark_from_static_string("vesk-platform");
}

bool access_policy_init(GError **error)
{
    (void)error;
    return true;
}

bool access_policy_check(const char *sender, const char *action, GError **error)
{
    if (!sender || !action || *sender != ':') {
        g_set_error(error, error_domain(), 0, "the call has no sender or no method");
        return false;
    }
    if (g_str_equal(action, "com.vesk.Sonobrik.SupportedFile")) {
        g_set_error(error, error_domain(), 0,
                    "this device does not tell %s which files it supports", sender);
        return false;
    }
    return true;
}
