#include "platform/access_policy.h"

#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <systemd/sd-bus.h>
#include <vector>

#include "access_policy_file.h"
#include "platform_bus.h"
#include "platform_error.h"

namespace
{

/* Half of the connections that dbus-daemon permits one user. More callers push each other out. */
constexpr size_t CALLERS_MAX = 128;

/* The owner of a unique bus name. A bus never gives the same unique name to two clients. */
struct Caller {
    std::string name;
    uid_t uid = 0;
    std::vector<gid_t> gids = {}; /* empty if the bus reports none */
};

struct {
    sd_bus
        *bus; /* held from the start until the process ends; if lost, the next check replaces it */
    std::array<Caller, CALLERS_MAX> callers;
    size_t next; /* index of the oldest entry, which the next caller replaces */
} state;

/* A restarted bus gives the same names to other clients. */
void forget_lost_callers()
{
    if (!platform_bus_is_open(state.bus)) {
        state.callers = {};
        state.next = 0;
    }
}

bool connect_bus(GError **error)
{
    forget_lost_callers();
    return platform_bus_hold_lookup(&state.bus, error);
}

/* Reads uid and group ids from the bus driver's a{sv}. Returns a negative errno on failure. */
int read_credentials(sd_bus_message *reply, Caller *caller, bool *has_uid)
{
    int r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{sv}");
    while (r >= 0 &&
           (r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char *name = nullptr;
        const char *type = nullptr;
        if ((r = sd_bus_message_read(reply, "s", &name)) < 0 ||
            (r = sd_bus_message_peek_type(reply, nullptr, &type)) < 0) {
            return r;
        }
        if (g_str_equal(name, "UnixUserID") && g_str_equal(type, "u")) {
            r = sd_bus_message_read(reply, "v", "u", &caller->uid);
            *has_uid = r >= 0;
        } else if (g_str_equal(name, "UnixGroupIDs") && g_str_equal(type, "au")) {
            const void *gids = nullptr;
            size_t size = 0;
            if ((r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_VARIANT, "au")) < 0 ||
                (r = sd_bus_message_read_array(reply, 'u', &gids, &size)) < 0) {
                return r;
            }
            const auto *first = static_cast<const gid_t *>(gids);
            caller->gids.assign(first, first + size / sizeof(gid_t));
            r = sd_bus_message_exit_container(reply);
        } else {
            r = sd_bus_message_skip(reply, "v");
        }
        if (r >= 0) {
            r = sd_bus_message_exit_container(reply);
        }
    }
    return r;
}

/* Returns the text of an error reply, or of the errno `-r` if there is none. */
const char *describe(sd_bus_message *reply, int r)
{
    const sd_bus_error *error = reply ? sd_bus_message_get_error(reply) : nullptr;
    return error && error->message ? error->message : g_strerror(-r);
}

/* Asks the bus driver for the credentials of `sender`. */
bool ask_bus(const char *sender, Caller *caller, GError **error)
{
    g_autoptr(sd_bus_message) call = nullptr;
    g_autoptr(sd_bus_message) reply = nullptr;
    bool has_uid = false;
    int r = sd_bus_message_new_method_call(state.bus, &call, "org.freedesktop.DBus",
                                           "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                           "GetConnectionCredentials");
    if (r >= 0) {
        r = sd_bus_message_append(call, "s", sender);
    }
    if (r >= 0) {
        r = platform_bus_call(state.bus, call, &reply);
    }
    if (r >= 0) {
        r = read_credentials(reply, caller, &has_uid);
    }
    if (reply && sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0) {
        g_set_error(error, PLATFORM_ERROR, ESRCH, "the caller '%s' has left the bus", sender);
        return false;
    }
    if (r < 0) {
        g_set_error(error, PLATFORM_ERROR, -r, "the bus did not identify the caller '%s': %s",
                    sender, describe(reply, r));
        return false;
    }
    if (!has_uid) {
        g_set_error(error, PLATFORM_ERROR, ENODATA,
                    "the bus does not know the user of the caller '%s'", sender);
        return false;
    }
    return true;
}

/* Returns the caller `sender`, valid until the next call, or null with `error` set. */
const Caller *identify(const char *sender, GError **error)
{
    if (!connect_bus(error)) {
        return nullptr;
    }
    const std::string_view name = sender;
    for (const Caller &caller : state.callers) {
        if (caller.name.empty()) {
            break; /* the entries are filled in order */
        }
        if (caller.name == name) {
            return &caller;
        }
    }
    Caller caller = {.name = sender};
    if (!ask_bus(sender, &caller, error)) {
        return nullptr;
    }
    Caller *entry = &state.callers[state.next];
    state.next = (state.next + 1) % CALLERS_MAX;
    *entry = std::move(caller);
    return entry;
}

} // namespace

bool access_policy_init(GError **error)
{
    if (!access_policy_file_load(error)) {
        return false;
    }
    /*
     * The bus answers while the daemon goes on with its start, so the first caller does not wait
     * for that. The first check reports a failure.
     */
    forget_lost_callers();
    platform_bus_start_lookup(&state.bus);
    return true;
}

bool access_policy_check(const char *sender, const char *action, GError **error)
{
    if (!sender || !action) {
        g_set_error(error, PLATFORM_ERROR, EINVAL, "the call has no %s",
                    sender ? "method name" : "sender");
        return false;
    }
    if (*sender != ':') { /* the owner of a well-known name may change */
        g_set_error(error, PLATFORM_ERROR, EINVAL, "'%s' is not a unique bus name", sender);
        return false;
    }
    const Caller *caller = identify(sender, error);
    return caller && access_policy_file_admits(caller->uid, caller->gids, action, error);
}
