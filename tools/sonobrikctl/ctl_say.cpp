#include "ctl_say.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "autoptr.h"
#include "client_policy.h"
#include "client_text.h"
#include "ctl.h"
#include "ctl_file.h"
#include "ctl_host.h"

namespace
{

/* What to do about the daemon's own errors, by the beginning of their text. */
constexpr struct {
    const char *text;
    void (*advise)();
} ADVICE[] = {
    {
        .text = CLIENT_TEXT_BUSY,
        .advise =
            [] {
                ctl_error("to stop it: %s; to play another clip instead: %s",
                          ctl_host_self("stop").c_str(),
                          ctl_host_self("play --replace CLIP").c_str());
            },
    },
    {
        .text = "NOK",
        .advise = [] { ctl_error("for details: %s", ctl_host_command(CTL_READ_LOG).c_str()); },
    },
};

bool is_method(const CtlCall *call, const char *method)
{
    return g_str_equal(call->method, method);
}

void explain_denied(const CtlCall *call)
{
    if (call->interface == &CLIENT_LEGACY) {
        ctl_error("permission denied: only root and members of %s",
                  is_method(call, "GetConfigurations")
                      ? "groups '" SONOBRIK_PLAY_GROUP "', '" SONOBRIK_CONFIG_GROUP
                        "' may list clips"
                      : "group '" SONOBRIK_CONFIG_GROUP "' may change clips");
        ctl_error("just added to the group? log out and back in");
        return;
    }
    /* The policy file of this machine says nothing about another one. */
    const std::string allowed = ctl_host() ? "" : client_policy_describe(call->method);
    if (!allowed.empty()) {
        ctl_error("permission denied: only %s may do this", allowed.c_str());
        ctl_error("just added to the group? log out and back in");
        return;
    }
    ctl_error("permission denied by the access policy: %s", call->method);
    ctl_error("for details: %s", ctl_host_command(CTL_READ_LOG).c_str());
}

int explain_method(const CtlCall *call, const GError *error)
{
    if (*error->message == '\0') {
        ctl_error("%s failed; for details: %s", call->method,
                  ctl_host_command(CTL_READ_LOG).c_str());
        return CTL_FAILED;
    }
    ctl_error("%s", error->message);
    for (const auto &row : ADVICE) {
        if (g_str_has_prefix(error->message, row.text)) {
            row.advise();
            return CTL_FAILED;
        }
    }
    if (!call->path) {
        return CTL_FAILED;
    }
    bool is_missing = false;
    /* SupportedFile takes wildcards for ordinary characters. */
    const bool may_be_pattern = !g_str_equal(call->method, "SupportedFile");
    std::string reason = ctl_file_explain(call->bus, call->path, may_be_pattern, &is_missing);
    if (reason.empty()) {
        reason = ctl_file_advise(error->message, call->shown ? call->shown : call->path);
    }
    if (!reason.empty()) {
        ctl_error("%s", reason.c_str());
    }
    return is_missing ? CTL_NO_CLIP : CTL_FAILED;
}

} // namespace

void ctl_error(const char *format, ...)
{
    const int before = errno;
    va_list values;
    va_start(values, format);
    g_autofree char *text = g_strdup_vprintf(format, values);
    va_end(values);
    /* Keeps the lines in order if standard output and standard error are the same file. */
    ctl_flush();
    fprintf(stderr, "sonobrikctl: %s\n", client_text_escape(text).c_str());
    errno = before;
}

bool ctl_flush()
{
    /* stdio drops what it cannot write, so only the first attempt tells the reason. */
    static int reason = 0;
    if (reason == 0 && (fflush(stdout) != 0 || ferror(stdout))) {
        reason = errno != 0 ? errno : EIO;
    }
    if (reason == 0) {
        return true;
    }
    errno = reason;
    return false;
}

int ctl_explain(const CtlCall *call, const GError *error)
{
    switch (error->code) {
    case CLIENT_ERROR_NO_BUS:
        return ctl_explain_bus(error);
    case CLIENT_ERROR_NO_DAEMON:
        ctl_error("cannot reach the daemon: %s", error->message);
        ctl_error("check the service: %s", ctl_host_command("systemctl status sonobrik").c_str());
        return CTL_AWAY;
    case CLIENT_ERROR_DENIED:
        explain_denied(call);
        return CTL_DENIED;
    case CLIENT_ERROR_METHOD:
        return explain_method(call, error);
    case CLIENT_ERROR_ARGUMENT:
        ctl_error("clip and file names must be valid UTF-8; rename the file first");
        return CTL_USAGE;
    case CLIENT_ERROR_NO_CLIP:
        ctl_error("%s", error->message);
        ctl_error("to list all clips: %s", ctl_host_self("list").c_str());
        return CTL_NO_CLIP;
    default:
        ctl_error("%s: unexpected reply: %s", call->method, error->message);
        ctl_error("the daemon and sonobrikctl may be of different versions");
        return CTL_FAILED;
    }
}

int ctl_explain_bus(const GError *error)
{
    if (ctl_host()) {
        ctl_error("no connection to the system bus of '%s': %s", ctl_host(), error->message);
        if (!g_str_equal(error->message, CLIENT_TEXT_NO_SSH)) {
            ctl_error("check that you can log in there with ssh, and that systemd-stdio-bridge is "
                      "installed there");
        }
        return CTL_AWAY;
    }
    ctl_error("no connection to the system bus: %s", error->message);
    ctl_error("check that the bus is running: systemctl status dbus");
    return CTL_AWAY;
}

int ctl_send(const CtlCall *call, sd_bus_message *message, GError *failure)
{
    g_autoptr(GError) error = failure;
    g_autoptr(sd_bus_message) answer = client_bus_call(call->bus, message, &error);
    return answer ? CTL_OK : ctl_explain(call, error);
}
