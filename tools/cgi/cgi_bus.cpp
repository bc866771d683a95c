#include "cgi_bus.h"

#include <string>
#include <string_view>

#include "autoptr.h"
#include "client_error.h"
#include "client_policy.h"
#include "client_text.h"

namespace
{

/* Returns the outcome for an error of the daemon's own with this text. */
CgiOutcome explain_method_error(std::string_view text)
{
    if (text == CLIENT_TEXT_BUSY) {
        return {CGI_BUSY, ""};
    }
    if (text.starts_with(CLIENT_TEXT_BAD_OPTIONS)) {
        return {CGI_INVALID,
                "The daemon rejected the options. Check that the output exists and is plugged in."};
    }
    if (text.starts_with(CLIENT_TEXT_NO_FILE)) {
        return {CGI_UNPLAYABLE, ""};
    }
    return {CGI_FAILED,
            text.empty() ? "" : "Its error message: " + client_text_escape(std::string(text))};
}

} // namespace

sd_bus *cgi_bus_open(GError **error)
{
    sd_bus *bus = client_bus_open(error);
    if (bus) {
        client_bus_set_limit(bus, CGI_CALL_LIMIT);
        client_bus_set_total_limit(CGI_TOTAL_LIMIT);
    }
    return bus;
}

CgiOutcome cgi_bus_explain(const GError *error, const char *method)
{
    switch (static_cast<ClientErrorCode>(error->code)) {
    case CLIENT_ERROR_NO_BUS:
    case CLIENT_ERROR_NO_DAEMON:
        return {CGI_AWAY, ""};
    case CLIENT_ERROR_TIMEOUT:
        return {CGI_SLOW, ""};
    case CLIENT_ERROR_DENIED: {
        const std::string allowed = client_policy_describe(method);
        return {CGI_DENIED,
                allowed.empty() ? "" : "Only " + client_text_escape(allowed) + " may do this."};
    }
    case CLIENT_ERROR_METHOD:
        return explain_method_error(error->message);
    case CLIENT_ERROR_ARGUMENT:
        return {CGI_FAILED, "The name of the clip's file cannot be sent over D-Bus."};
    case CLIENT_ERROR_NO_CLIP:
        return {CGI_NO_CLIP, ""};
    case CLIENT_ERROR_REPLY:
        break;
    }
    return {CGI_REPLY, ""};
}

CgiOutcome cgi_bus_find_clip(const GPtrArray *clips, const CgiRequest &request,
                             const ClientClip **clip)
{
    *clip = client_clips_get(clips, request.clip);
    if (!*clip) {
        return {CGI_NO_CLIP, ""};
    }
    const bool is_changed = !request.location.empty() && request.location != (*clip)->location;
    return {is_changed ? CGI_CHANGED : CGI_OK, ""};
}

CgiOutcome cgi_bus_call(sd_bus *bus, const char *method, const char *text, CgiResult success)
{
    g_autoptr(GError) error = nullptr;
    sd_bus_message *request = client_bus_new_call(bus, &CLIENT_SONOBRIK, method, &error, "s", text);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, request, &error);
    if (!answer) {
        return cgi_bus_explain(error, method);
    }
    const char *word = nullptr;
    if (sd_bus_message_read(answer, "s", &word) < 0 || !g_str_equal(word, "OK")) {
        return {CGI_REPLY, ""};
    }
    return {success, ""};
}
