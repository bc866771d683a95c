#include "cgi_daemon.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_clips.h"
#include "client_error.h"
#include "client_events.h"
#include "client_play.h"
#include "client_policy.h"
#include "client_text.h"

namespace
{

/* Returns true if a clip's file does not exist, as far as the web server's user can see. */
bool is_file_missing(const char *location)
{
    struct stat status;
    if (*location == '\0') {
        return true;
    }
    return stat(location, &status) != 0 && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
}

/* Returns the outcome for an error of the daemon's own with this text. */
CgiOutcome explain_method_error(std::string_view text)
{
    if (text == CLIENT_TEXT_BUSY) {
        return {CGI_BUSY, ""};
    }
    if (text.starts_with(CLIENT_TEXT_BAD_OPTIONS)) {
        return {CGI_INVALID, "The daemon rejected the options. Check that the output exists."};
    }
    if (text.starts_with(CLIENT_TEXT_NO_FILE)) {
        return {CGI_UNPLAYABLE, ""};
    }
    return {CGI_FAILED,
            text.empty() ? "" : "Its error message: " + client_text_escape(std::string(text))};
}

/* Returns the outcome for a failed call of `method` of the daemon. */
CgiOutcome explain_error(const GError *error, const char *method)
{
    switch (static_cast<ClientErrorCode>(error->code)) {
    case CLIENT_ERROR_NO_BUS:
    case CLIENT_ERROR_NO_DAEMON:
        return {CGI_AWAY, ""};
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

/* Calls a method that takes a text and replies "OK". Returns `success` if it does. */
CgiOutcome call(sd_bus *bus, const char *method, const char *text, CgiResult success)
{
    g_autoptr(GError) error = nullptr;
    sd_bus_message *request = client_bus_new_call(bus, &CLIENT_SONOBRIK, method, &error, "s", text);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, request, &error);
    if (!answer) {
        return explain_error(error, method);
    }
    const char *word = nullptr;
    if (sd_bus_message_read(answer, "s", &word) < 0 || !g_str_equal(word, "OK")) {
        return {CGI_REPLY, ""};
    }
    return {success, ""};
}

/*
 * Returns an error if the daemon would play other files than the one of this name. It does that if
 * the name contains wildcard characters and the file itself cannot be played.
 */
CgiOutcome check_literal(sd_bus *bus, const char *location)
{
    if (!client_play_has_wildcards(location)) {
        return {};
    }
    CgiOutcome outcome = call(bus, "SupportedFile", location, CGI_OK);
    return outcome.result == CGI_FAILED ? CgiOutcome{CGI_UNPLAYABLE, ""} : outcome;
}

CgiOutcome play(sd_bus *bus, const CgiRequest &request, const char *location)
{
    if (is_file_missing(location)) {
        return {CGI_NO_FILE, ""};
    }
    CgiOutcome outcome = check_literal(bus, location);
    if (outcome.result == CGI_OK) {
        const ClientPlay options = {
            .location = location,
            .volume = request.volume,
            .repeat = request.repeat,
            .output = request.output,
        };
        g_autofree char *text = client_play_options(&options);
        outcome = call(bus, "StartPlayingClip", text, CGI_PLAYING);
    }
    /* The file may have been deleted since the first check. */
    if (outcome.result == CGI_UNPLAYABLE && is_file_missing(location)) {
        return {CGI_NO_FILE, ""};
    }
    return outcome;
}

/* The interface for a call that every service answers. */
constexpr ClientInterface PEER = {
    .service = "com.vesk.Sonobrik",
    .object = "/com/vesk/Sonobrik",
    .interface = "org.freedesktop.DBus.Peer",
};

/* Returns true if the daemon is not running. The bus starts it first if it can. */
bool is_away(sd_bus *bus)
{
    g_autoptr(GError) error = nullptr;
    sd_bus_message *ping = client_bus_new_call(bus, &PEER, "Ping", &error, nullptr);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, ping, &error);
    return !answer && (g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON) ||
                       g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS));
}

/* Reads what is playing. It stays unknown if the platform publishes no event objects. */
void read_now(sd_bus *bus, CgiNow *now)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus, &error);
    now->is_known = outputs && outputs->len > 0;
    for (guint i = 0; outputs && i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        now->outputs.push_back({
            .number = output->output,
            .playing = output->playing,
            .file = output->file_name,
        });
    }
}

/* Lists the clips, without metadata if the daemon fails to read it. */
GPtrArray *list_clips(sd_bus *bus, GError **error)
{
    g_autoptr(GError) failure = nullptr;
    GPtrArray *clips = client_clips_list(bus, true, &failure);
    if (g_error_matches(failure, CLIENT_ERROR, CLIENT_ERROR_METHOD)) {
        return client_clips_list(bus, false, error);
    }
    if (!clips) {
        g_propagate_error(error, g_steal_pointer(&failure));
    }
    return clips;
}

} // namespace

CgiOutcome cgi_daemon_play(const CgiRequest &request)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open(&error);
    g_autoptr(GPtrArray) clips = bus ? client_clips_list(bus, false, &error) : nullptr;
    if (!clips) {
        return explain_error(error, "StartPlayingClip");
    }
    const ClientClip *clip = client_clips_get(clips, request.clip);
    return clip ? play(bus, request, clip->location) : CgiOutcome{CGI_NO_CLIP, ""};
}

CgiOutcome cgi_daemon_stop()
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open(&error);
    return bus ? call(bus, "StopPlayingClip", "", CGI_STOPPED)
               : explain_error(error, "StopPlayingClip");
}

CgiOutcome cgi_daemon_read_now(CgiNow *now)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open(&error);
    if (!bus) {
        return explain_error(error, "StartPlayingClip");
    }
    read_now(bus, now);
    return {!now->is_known && is_away(bus) ? CGI_AWAY : CGI_OK, ""};
}

CgiOutcome cgi_daemon_read_state(CgiState *state)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open(&error);
    g_autoptr(GPtrArray) clips = bus ? list_clips(bus, &error) : nullptr;
    if (!clips) {
        return explain_error(error, "StartPlayingClip");
    }
    read_now(bus, &state->now);
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        state->clips.push_back({
            .number = clip->number,
            .name = clip->name,
            .location = clip->location,
            .duration_ms = clip->duration_ms,
            .is_file_missing = is_file_missing(clip->location),
        });
    }
    return {};
}

std::string cgi_now_describe(const CgiNow &now)
{
    std::string text;
    for (const CgiOutput &output : now.outputs) {
        if (output.playing) {
            g_autofree char *name = g_path_get_basename(output.file.c_str());
            text += (text.empty() ? "" : " ") + client_text_escape(name) +
                    " is playing on output " + std::to_string(output.number) + ".";
        }
    }
    if (!text.empty()) {
        return text;
    }
    return now.is_known ? "Nothing is playing." : "This device does not report what is playing.";
}
