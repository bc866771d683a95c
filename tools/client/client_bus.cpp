#include "client_bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "autoptr.h"

const ClientInterface CLIENT_SONOBRIK = {
    .service = "com.vesk.Sonobrik",
    .object = "/com/vesk/Sonobrik",
    .interface = "com.vesk.Sonobrik",
};

const ClientInterface CLIENT_LEGACY = {
    .service = "com.vesk.Sonobrik.Legacy",
    .object = "/com/vesk/Sonobrik",
    .interface = "com.vesk.Configuration.Legacy",
};

G_DEFINE_QUARK(sonobrik - client - error, client_error)

namespace
{

constexpr uint64_t NO_LIMIT = UINT64_MAX;

/* How long further calls of the process may wait together, in µs. */
uint64_t time_left = NO_LIMIT;

/* The errors that the bus or systemd sends when the daemon is not running. An entry that ends with
 * a dot matches all errors with that prefix. */
constexpr std::array<std::string_view, 7> NO_DAEMON_ERRORS = {
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply",
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.Spawn.",
    "org.freedesktop.DBus.Error.TimedOut",
    "org.freedesktop.DBus.Error.Timeout",
    "org.freedesktop.systemd1.",
};

bool means_no_daemon(std::string_view name)
{
    return std::ranges::any_of(NO_DAEMON_ERRORS, [name](std::string_view error) {
        return error.ends_with('.') ? name.starts_with(error) : name == error;
    });
}

bool is_disconnect(int reason)
{
    return reason == -ECONNRESET || reason == -ENOTCONN || reason == -EPIPE;
}

ClientErrorCode code_of(int reason, std::string_view name)
{
    if (name == SD_BUS_ERROR_ACCESS_DENIED) {
        return CLIENT_ERROR_DENIED;
    }
    if (reason == -ETIMEDOUT && name == SD_BUS_ERROR_TIMEOUT) {
        return CLIENT_ERROR_TIMEOUT; /* the bus library's own error, not the bus's */
    }
    if (means_no_daemon(name)) {
        return CLIENT_ERROR_NO_DAEMON;
    }
    if (name.starts_with("com.vesk.")) {
        return CLIENT_ERROR_METHOD;
    }
    if (is_disconnect(reason)) {
        return CLIENT_ERROR_NO_BUS;
    }
    return CLIENT_ERROR_REPLY;
}

/* Sends `call` like sd_bus_call(), and takes the time that this needs from `time_left`. */
int send_call(sd_bus *bus, sd_bus_message *call, sd_bus_error *error, sd_bus_message **answer)
{
    uint64_t limit = NO_LIMIT;
    sd_bus_get_method_call_timeout(bus, &limit);
    if (time_left == 0) {
        return sd_bus_error_set_const(error, SD_BUS_ERROR_TIMEOUT, "No time is left for the call");
    }
    const gint64 start = g_get_monotonic_time();
    const int r = sd_bus_call(bus, call, std::min(limit, time_left), error, answer);
    if (time_left != NO_LIMIT) {
        const auto taken = static_cast<uint64_t>(g_get_monotonic_time() - start);
        time_left -= std::min(time_left, taken);
    }
    return r;
}

} // namespace

sd_bus *client_bus_open(GError **error)
{
    sd_bus *bus = nullptr;
    const int r = sd_bus_open_system(&bus);
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS, "%s", g_strerror(-r));
        return nullptr;
    }
    sd_bus_set_method_call_timeout(bus, NO_LIMIT);
    return bus;
}

sd_bus *client_bus_open_remote(const char *machine, GError **error)
{
    g_autofree char *ssh = g_find_program_in_path("ssh");
    if (!ssh) {
        g_set_error_literal(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS, CLIENT_TEXT_NO_SSH);
        return nullptr;
    }
    g_autoptr(sd_bus) bus = nullptr;
    int r = sd_bus_open_system_remote(&bus, machine);
    if (r >= 0) {
        /* Opening does not wait for ssh. Waits here, so that a failed login fails here too. */
        const char *name = nullptr;
        r = sd_bus_get_unique_name(bus, &name);
    }
    if (r < 0) {
        g_set_error_literal(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS,
                            is_disconnect(r) ? "ssh did not connect" : g_strerror(-r));
        return nullptr;
    }
    sd_bus_set_method_call_timeout(bus, NO_LIMIT);
    return g_steal_pointer(&bus);
}

void client_bus_set_limit(sd_bus *bus, guint seconds)
{
    sd_bus_set_method_call_timeout(bus, static_cast<uint64_t>(seconds) * G_USEC_PER_SEC);
}

void client_bus_set_total_limit(guint seconds)
{
    time_left = seconds > 0 ? static_cast<uint64_t>(seconds) * G_USEC_PER_SEC : NO_LIMIT;
}

sd_bus_message *client_bus_new_call(sd_bus *bus, const ClientInterface *interface,
                                    const char *member, GError **error, const char *types, ...)
{
    g_autoptr(sd_bus_message) call = nullptr;
    int r = sd_bus_message_new_method_call(bus, &call, interface->service, interface->object,
                                           interface->interface, member);
    if (r >= 0 && types) {
        va_list values;
        va_start(values, types);
        r = sd_bus_message_appendv(call, types, values);
        va_end(values);
    }
    if (r == -ENOTCONN) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS, "%s", g_strerror(-r));
        return nullptr;
    }
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_ARGUMENT, "%s", g_strerror(-r));
        return nullptr;
    }
    return g_steal_pointer(&call);
}

sd_bus_message *client_bus_call(sd_bus *bus, sd_bus_message *call, GError **error)
{
    if (!call) {
        return nullptr;
    }
    g_autoptr(sd_bus_message) owned_call = call;
    g_auto(sd_bus_error) bus_error = {};
    sd_bus_message *answer = nullptr;
    const int r = send_call(bus, owned_call, &bus_error, &answer);
    if (r < 0) {
        client_bus_set_error(error, r, &bus_error);
        return nullptr;
    }
    return answer;
}

int client_bus_match_owner(sd_bus *bus, const char *name, sd_bus_message_handler_t handler,
                           void *data)
{
    const std::string rule =
        std::string(
            "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
        name + "'";
    return sd_bus_add_match(bus, nullptr, rule.c_str(), handler, data);
}

void client_bus_set_error(GError **error, int reason, const sd_bus_error *bus_error)
{
    const char *name = bus_error && bus_error->name ? bus_error->name : "";
    const char *text = bus_error && bus_error->message ? bus_error->message : "";
    const ClientErrorCode code = code_of(reason, name);
    /* The daemon sends some errors without a text, and callers check for that. For every other
     * error without a text, use the error's name or the errno text. */
    if (*text == '\0' && code != CLIENT_ERROR_METHOD) {
        text = *name != '\0' ? name : g_strerror(-reason);
    }
    g_set_error_literal(error, CLIENT_ERROR, code, text);
}

int client_bus_read_dict(sd_bus_message *m, const char *entry, const std::function<int()> &read)
{
    g_autofree char *contents = g_strdup_printf("{%s}", entry);
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, contents);
    if (r < 0) {
        return r;
    }
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, entry)) > 0) {
        if ((r = read()) < 0 || (r = sd_bus_message_exit_container(m)) < 0) {
            return r;
        }
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

int client_bus_read_properties(sd_bus_message *m,
                               const std::function<int(const char *name, const char *type)> &read)
{
    return client_bus_read_dict(m, "sv", [m, &read] {
        const char *name = nullptr;
        const char *type = nullptr;
        int r = sd_bus_message_read(m, "s", &name);
        if (r < 0 || (r = sd_bus_message_peek_type(m, nullptr, &type)) < 0) {
            return r;
        }
        r = read(name, type);
        return r == 0 ? sd_bus_message_skip(m, "v") : r;
    });
}
