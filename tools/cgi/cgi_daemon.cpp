#include "cgi_daemon.h"

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <sys/stat.h>

#include "autoptr.h"
#include "cgi_bus.h"
#include "client_clips.h"
#include "client_devices.h"
#include "client_error.h"
#include "client_events.h"
#include "client_play.h"
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

/* Returns an error if the daemon does not report the requested output. */
CgiOutcome check_output(sd_bus *bus, gint64 number)
{
    g_autoptr(GPtrArray) outputs =
        number == CLIENT_NOT_GIVEN ? nullptr : client_outputs_list(bus, nullptr);
    bool is_there = !outputs || outputs->len == 0; /* a platform may report none */
    for (guint i = 0; !is_there && i < outputs->len; i++) {
        is_there =
            static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i))->output == number;
    }
    return is_there ? CgiOutcome{}
                    : CgiOutcome{CGI_INVALID, "Check that the output exists and is plugged in."};
}

/* Returns an error if the daemon cannot play the file of exactly this name. */
CgiOutcome check_file(sd_bus *bus, const char *location)
{
    CgiOutcome outcome = cgi_bus_call(bus, "SupportedFile", location, CGI_OK);
    return outcome.result == CGI_FAILED ? CgiOutcome{CGI_UNPLAYABLE, ""} : outcome;
}

CgiOutcome play(sd_bus *bus, const CgiRequest &request, const char *location)
{
    if (is_file_missing(location)) {
        return {CGI_NO_FILE, ""};
    }
    CgiOutcome outcome;
    /* Without its file, the daemon would play other files that match a name with wildcards. */
    if (request.stops_first || client_play_has_wildcards(location)) {
        outcome = check_file(bus, location);
    }
    /* A request that will fail must not end what is playing, which may be an alarm. */
    if (outcome.result == CGI_OK && request.stops_first) {
        outcome = check_output(bus, request.output);
    }
    if (outcome.result == CGI_OK && request.stops_first) {
        outcome = cgi_bus_call(bus, "StopPlayingClip", "", CGI_OK);
    }
    if (outcome.result == CGI_OK) {
        const ClientPlay options = {
            .location = location,
            .volume = request.volume,
            .repeat = request.repeat,
            .output = request.output,
        };
        g_autofree char *text = client_play_options(&options);
        outcome = cgi_bus_call(bus, "StartPlayingClip", text, CGI_PLAYING);
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
                       g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_TIMEOUT) ||
                       g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_BUS));
}

/* Returns for how long a file has been playing, in ms, or -1 if it is not known. */
gint64 measure_elapsed(guint64 since)
{
    constexpr gint64 USEC_PER_MSEC = 1000;
    const gint64 now = g_get_monotonic_time();
    const bool is_known = since > 0 && since <= static_cast<guint64>(now);
    return is_known ? (now - static_cast<gint64>(since)) / USEC_PER_MSEC : -1;
}

/* The folder in which the daemon keeps a record of each clip. */
constexpr const char *RECORDS = "/etc/dynamic/sonobrik/clip_data";

std::string read_revision()
{
    std::string revision;
    for (const char *folder : {RECORDS, CLIENT_CLIP_FOLDER}) {
        struct stat status;
        if (stat(folder, &status) != 0) {
            return "";
        }
        g_autofree char *time = g_strdup_printf("%" G_GINT64_FORMAT ".%09ld",
                                                static_cast<gint64>(status.st_mtim.tv_sec),
                                                static_cast<long>(status.st_mtim.tv_nsec));
        revision += (revision.empty() ? "" : " ") + std::string(time);
    }
    return revision;
}

/* Sets the names of the outputs, and adds those of devices that are not plugged in. */
void add_devices(const GPtrArray *devices, std::vector<CgiOutput> *outputs)
{
    for (CgiOutput &output : *outputs) {
        const char *name = client_devices_get_name(devices, output.number);
        output.name = name ? client_text_escape(name) : "";
    }
    for (guint i = 0; devices && i < devices->len; i++) {
        const auto *device = static_cast<const ClientDevice *>(g_ptr_array_index(devices, i));
        const auto place =
            std::ranges::lower_bound(*outputs, device->number, {}, &CgiOutput::number);
        const bool is_listed = place != outputs->end() && place->number == device->number;
        if (!device->plugged_in && !is_listed) {
            CgiOutput output;
            output.number = device->number;
            output.name = client_text_escape(device->name);
            output.unplugged = true;
            outputs->insert(place, output);
        }
    }
}

/* Lists the devices by name. Without them the outputs have numbers alone, so a service that does
 * not answer delays the page only a little. */
GPtrArray *list_devices(sd_bus *bus)
{
    client_bus_set_limit(bus, CGI_NAMES_LIMIT);
    GPtrArray *devices = client_devices_list(bus, nullptr);
    client_bus_set_limit(bus, CGI_CALL_LIMIT);
    return devices;
}

/* Reads what is playing. It stays unknown if the platform publishes no event objects. Returns false
 * if the daemon does not answer in time. */
bool read_now(sd_bus *bus, CgiNow *now)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus, &error);
    if (!outputs) {
        return !g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_TIMEOUT);
    }
    g_autoptr(GPtrArray) devices = list_devices(bus);
    now->is_known = outputs->len > 0 || devices;
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        now->outputs.push_back({
            .number = output->output,
            .name = "",
            .unplugged = false,
            .playing = output->playing,
            .file = output->file_name,
            .title = "",
            .elapsed_ms = measure_elapsed(output->file_since),
        });
    }
    add_devices(devices, &now->outputs);
    return true;
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
    g_autoptr(sd_bus) bus = cgi_bus_open(&error);
    g_autoptr(GPtrArray) clips = bus ? client_clips_list(bus, false, &error) : nullptr;
    if (!clips) {
        return cgi_bus_explain(error, "StartPlayingClip");
    }
    const ClientClip *clip = nullptr;
    const CgiOutcome outcome = cgi_bus_find_clip(clips, request, &clip);
    return outcome.result == CGI_OK ? play(bus, request, clip->location) : outcome;
}

CgiOutcome cgi_daemon_stop()
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = cgi_bus_open(&error);
    return bus ? cgi_bus_call(bus, "StopPlayingClip", "", CGI_STOPPED)
               : cgi_bus_explain(error, "StopPlayingClip");
}

CgiOutcome cgi_daemon_read_now(CgiNow *now)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = cgi_bus_open(&error);
    if (!bus) {
        return cgi_bus_explain(error, "StartPlayingClip");
    }
    now->revision = read_revision();
    const bool is_silent = !read_now(bus, now);
    return {is_silent || (!now->is_known && is_away(bus)) ? CGI_AWAY : CGI_OK, ""};
}

CgiOutcome cgi_daemon_read_state(CgiState *state)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = cgi_bus_open(&error);
    /* Before the list, so that a change in the meantime is seen the next time. */
    state->now.revision = read_revision();
    if (bus) {
        client_bus_set_limit(bus, CGI_LIST_LIMIT);
    }
    g_autoptr(GPtrArray) clips = bus ? list_clips(bus, &error) : nullptr;
    if (!clips) {
        return cgi_bus_explain(error, "StartPlayingClip");
    }
    client_bus_set_limit(bus, CGI_CALL_LIMIT);
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

std::string cgi_output_describe(const CgiOutput &output)
{
    std::string number = "output " + std::to_string(output.number);
    if (output.name.empty()) {
        return number;
    }
    return output.name + " (" + number + (output.unplugged ? ", unplugged)" : ")");
}

std::string cgi_now_describe(const CgiNow &now)
{
    std::string text;
    for (const CgiOutput &output : now.outputs) {
        if (output.playing) {
            g_autofree char *name = g_path_get_basename(output.file.c_str());
            text += (text.empty() ? "" : " ") +
                    (output.title.empty() ? client_text_escape(name) : output.title) +
                    " is playing on " + cgi_output_describe(output) + ".";
        }
    }
    if (!text.empty()) {
        return text;
    }
    return now.is_known ? "Nothing is playing." : "This device does not report what is playing.";
}
