#include "cgi_daemon.h"

#include <cerrno>
#include <cstring>
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

std::string escape(const char *text)
{
    g_autofree char *escaped = client_text_escape(text);
    return escaped;
}

/* What the daemon's refusal of a play request means. */
CgiOutcome judge_refusal(const char *text)
{
    const std::string_view words = text;
    if (words == "A clip is already playing.") {
        return {CGI_BUSY, ""};
    }
    if (words.starts_with("Failed to parse/validate option string")) {
        return {CGI_UNREADABLE, "The daemon refuses the options; is there such an output?"};
    }
    if (words.starts_with("No supported file(s) found at")) {
        return {CGI_UNPLAYABLE, ""};
    }
    return {CGI_FAILED, words.empty() ? "" : "It says: " + escape(text)};
}

/* What a failed call of `method` of the daemon means. */
CgiOutcome judge(const GError *error, const char *method)
{
    switch (static_cast<ClientErrorCode>(error->code)) {
    case CLIENT_ERROR_NO_BUS:
    case CLIENT_ERROR_NO_DAEMON:
        return {CGI_AWAY, ""};
    case CLIENT_ERROR_DENIED: {
        g_autofree char *allowed = client_policy_describe(method);
        return {CGI_DENIED, allowed ? "Allowed are: " + escape(allowed) + "." : ""};
    }
    case CLIENT_ERROR_METHOD:
        return judge_refusal(error->message);
    case CLIENT_ERROR_ARGUMENT:
        return {CGI_FAILED, "The bus cannot carry the name of the clip's file."};
    case CLIENT_ERROR_NO_CLIP:
        return {CGI_NO_CLIP, ""};
    case CLIENT_ERROR_REPLY:
        break;
    }
    return {CGI_REPLY, ""};
}

/* Calls a method that takes a text and answers "OK"; `success` is what then came of it. */
CgiOutcome call(sd_bus *bus, const char *method, const char *text, CgiResult success)
{
    g_autoptr(GError) error = nullptr;
    sd_bus_message *request = client_bus_new_call(bus, &CLIENT_SONOBRIK, method, &error, "s", text);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, request, &error);
    if (!answer) {
        return judge(error, method);
    }
    const char *word = nullptr;
    if (sd_bus_message_read(answer, "s", &word) < 0 || !g_str_equal(word, "OK")) {
        return {CGI_REPLY, ""};
    }
    return {success, ""};
}

/*
 * Whether the daemon plays the file of this name itself. Where it cannot, it takes a name with
 * wildcard characters for a set of files, and would play any of them.
 */
CgiOutcome check_literal(sd_bus *bus, const char *location)
{
    if (!strpbrk(location, "*?")) {
        return {};
    }
    CgiOutcome outcome = call(bus, "SupportedFile", location, CGI_OK);
    return outcome.result == CGI_FAILED ? CgiOutcome{CGI_UNPLAYABLE, ""} : outcome;
}

CgiOutcome play(sd_bus *bus, const CgiRequest &request, const char *location)
{
    if (cgi_daemon_find_file(location) == CGI_FILE_GONE) {
        return {CGI_NO_FILE, ""};
    }
    CgiOutcome outcome = check_literal(bus, location);
    if (outcome.result == CGI_OK) {
        ClientPlay options = {.location = location};
        options.volume = request.volume;
        options.repeat = request.repeat;
        options.output = request.output;
        g_autofree char *text = client_play_options(&options);
        outcome = call(bus, "StartPlayingClip", text, CGI_PLAYING);
    }
    /* It may have gone since. */
    if (outcome.result == CGI_UNPLAYABLE && cgi_daemon_find_file(location) == CGI_FILE_GONE) {
        return {CGI_NO_FILE, ""};
    }
    return outcome;
}

constexpr ClientInterface PEER = {
    .service = "com.vesk.Sonobrik",
    .object = "/com/vesk/Sonobrik",
    .interface = "org.freedesktop.DBus.Peer",
};

/* Whether the daemon answers at all; one that the bus can start is started by this. */
bool is_away(sd_bus *bus)
{
    g_autoptr(GError) error = nullptr;
    sd_bus_message *ping = client_bus_new_call(bus, &PEER, "Ping", &error, nullptr);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, ping, &error);
    return !answer && (g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON) ||
                       g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS));
}

/* Reads what plays now. It stays unknown where the platform keeps no events, or none like these. */
void read_now(sd_bus *bus, CgiNow *now)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus, &error);
    now->is_known = outputs && outputs->len > 0;
    for (guint i = 0; outputs && i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        now->outputs.push_back({output->output, output->playing, output->file_name});
    }
}

/* Lists the clips; without what their files hold if the daemon cannot tell that. */
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
        return judge(error, "StartPlayingClip");
    }
    const ClientClip *clip = client_clips_get(clips, request.clip);
    return clip ? play(bus, request, clip->location) : CgiOutcome{CGI_NO_CLIP, ""};
}

CgiOutcome cgi_daemon_stop()
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open(&error);
    return bus ? call(bus, "StopPlayingClip", "", CGI_STOPPED) : judge(error, "StopPlayingClip");
}

CgiFile cgi_daemon_find_file(const char *location)
{
    struct stat status;
    if (*location == '\0') {
        return CGI_FILE_GONE;
    }
    const bool is_gone =
        stat(location, &status) != 0 && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
    return is_gone ? CGI_FILE_GONE : CGI_FILE_THERE;
}

CgiOutcome cgi_daemon_read_now(CgiNow *now)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open(&error);
    if (!bus) {
        return judge(error, "StartPlayingClip");
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
        return judge(error, "StartPlayingClip");
    }
    read_now(bus, &state->now);
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        state->clips.push_back({
            .number = clip->number,
            .name = clip->name,
            .location = clip->location,
            .duration_ms = clip->duration_ms,
            .file = cgi_daemon_find_file(clip->location),
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
            text += (text.empty() ? "" : " ") + escape(name) + " plays on output " +
                    std::to_string(output.number) + ".";
        }
    }
    if (!text.empty()) {
        return text;
    }
    return now.is_known ? "Nothing plays now." : "What plays now is not known on this device.";
}
