#include "ctl_say.h"

#include <cstdarg>
#include <cstdio>

#include "client_policy.h"
#include "client_text.h"
#include "ctl.h"
#include "ctl_file.h"

namespace
{

/* What to do about an error of the daemon's own, by the beginning of its text. */
constexpr struct {
    const char *text;
    const char *advice;
} ADVICE[] = {
    {"A clip is already playing", "stop it with 'sonobrikctl stop', or wait for its end"},
    {"Failed to parse/validate option string",
     "is there such an output? 'sonobrikctl outputs' lists them"},
    {"Error playing clip: Could not set receive pipeline",
     "is the output there, and not taken by another program? See: journalctl -t sonobrik"},
    {"NOK", "the daemon's log says why: journalctl -t sonobrik"},
};

bool is_method(const CtlCall *call, const char *method)
{
    return g_str_equal(call->method, method);
}

void explain_denied(const CtlCall *call)
{
    if (call->interface == &CLIENT_LEGACY) {
        ctl_error("not allowed: %s",
                  is_method(call, "GetConfigurations")
                      ? "root, and members of the group audio, may list the clips"
                      : "root, and members of the group sonobrik-config, may change the clips");
        ctl_error("who was just added to a group is a member from the next log-in on");
        return;
    }
    g_autofree char *admitted = client_policy_describe(call->method);
    if (admitted) {
        ctl_error("not allowed; %s are, on this machine", admitted);
        ctl_error("who was just added to a group is a member from the next log-in on");
        return;
    }
    ctl_error("not allowed to call %s", call->method);
    ctl_error("the device's access policy decides; the daemon's log says why: "
              "journalctl -t sonobrik");
}

int explain_method(const CtlCall *call, const GError *error)
{
    if (*error->message == '\0') {
        ctl_error("%s failed; the daemon's log says why: journalctl -t sonobrik", call->method);
        return CTL_FAILED;
    }
    ctl_error("%s", error->message);
    for (const auto &row : ADVICE) {
        if (g_str_has_prefix(error->message, row.text)) {
            ctl_error("%s", row.advice);
            return CTL_FAILED;
        }
    }
    if (!call->path) {
        return CTL_FAILED;
    }
    bool is_missing = false;
    g_autofree char *reason = ctl_file_explain(call->bus, call->path, &is_missing);
    if (reason) {
        ctl_error("%s", reason);
    }
    return is_missing ? CTL_NO_CLIP : CTL_FAILED;
}

} // namespace

void ctl_error(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    g_autofree char *text = g_strdup_vprintf(format, values);
    va_end(values);
    g_autofree char *escaped = client_text_escape(text);
    /* What was printed before stands before it, where both go to one place. */
    fflush(stdout);
    fprintf(stderr, "sonobrikctl: %s\n", escaped);
}

int ctl_explain(const CtlCall *call, const GError *error)
{
    switch (error->code) {
    case CLIENT_ERROR_NO_BUS:
        return ctl_explain_bus(error);
    case CLIENT_ERROR_NO_DAEMON:
        ctl_error("the daemon does not answer: %s", error->message);
        ctl_error("is the service running? See: systemctl status sonobrik");
        return CTL_AWAY;
    case CLIENT_ERROR_DENIED:
        explain_denied(call);
        return CTL_DENIED;
    case CLIENT_ERROR_METHOD:
        return explain_method(call, error);
    case CLIENT_ERROR_ARGUMENT:
        ctl_error("names of clips and files have to be UTF-8 to be sent over the bus; rename "
                  "the file first");
        return CTL_USAGE;
    case CLIENT_ERROR_NO_CLIP:
        ctl_error("%s", error->message);
        ctl_error("'sonobrikctl list' shows all clips");
        return CTL_NO_CLIP;
    default:
        ctl_error("%s: the answer is not what was expected: %s", call->method, error->message);
        ctl_error("do the versions of the daemon and of sonobrikctl match?");
        return CTL_FAILED;
    }
}

int ctl_explain_bus(const GError *error)
{
    ctl_error("no system bus: %s", error->message);
    ctl_error("is it running? See: systemctl status dbus");
    return CTL_AWAY;
}

sd_bus *ctl_bus_open()
{
    g_autoptr(GError) error = nullptr;
    sd_bus *bus = client_bus_open(&error);
    if (!bus) {
        ctl_explain_bus(error);
    }
    return bus;
}
