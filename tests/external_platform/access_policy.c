/*
 * Allows the users in the table below to call every method, and nobody else. Change the table, or
 * ask the device's own access control. The caller's user comes from the message bus.
 */

#include "platform/access_policy.h"

#include <string.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>

static const uid_t allowed_users[] = {0};

static sd_bus *bus; /* held from the first check until the process ends */

static bool refuse(GError **error, const char *sender, const char *reason)
{
    g_set_error(error, g_quark_from_static_string("vesk-platform"), 0, "%s: %s",
                sender ? sender : "(no sender)", reason);
    return false;
}

bool access_policy_init(GError **error)
{
    (void)error;
    return true;
}

/* Asks the bus for the user of `sender`. Returns a negative errno on failure. */
static int find_user(const char *sender, uid_t *user)
{
    if (bus && sd_bus_is_open(bus) <= 0) {
        bus = sd_bus_unref(bus);
    }
    int r = 0;
    if (!bus && (r = sd_bus_open_system(&bus)) < 0) {
        return r;
    }
    sd_bus_creds *credentials = NULL;
    r = sd_bus_get_name_creds(bus, sender, SD_BUS_CREDS_EUID, &credentials);
    if (r >= 0) {
        r = sd_bus_creds_get_euid(credentials, user);
    }
    sd_bus_creds_unref(credentials);
    return r;
}

bool access_policy_check(const char *sender, const char *action, GError **error)
{
    if (!sender || !action || *sender != ':') {
        return refuse(error, sender, "the call has no sender or no method");
    }
    uid_t user = 0;
    const int r = find_user(sender, &user);
    if (r < 0) {
        return refuse(error, sender, strerror(-r));
    }
    for (size_t i = 0; i < G_N_ELEMENTS(allowed_users); i++) {
        if (user == allowed_users[i]) {
            return true;
        }
    }
    return refuse(error, sender, "this user is not allowed to call the audio clip service");
}
