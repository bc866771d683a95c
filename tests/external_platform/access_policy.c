/* Everybody may do everything, but nobody may ask this device whether it can play a file. */

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
        g_set_error(error, error_domain(), 0, "a call without a sender or a method is refused");
        return false;
    }
    if (g_str_equal(action, "com.vesk.Sonobrik.SupportedFile")) {
        g_set_error(error, error_domain(), 0, "this device does not tell %s", sender);
        return false;
    }
    return true;
}
