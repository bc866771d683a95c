#include "cgi_change.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "cgi_bus.h"
#include "cgi_folder.h"
#include "cgi_name.h"
#include "cgi_upload.h"
#include "client_clips.h"
#include "client_error.h"

namespace
{

/* A connection and the list of clips. */
struct Store {
    sd_bus *bus = nullptr;
    GPtrArray *clips = nullptr;

    Store() = default;
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store()
    {
        g_clear_pointer(&clips, g_ptr_array_unref);
        g_clear_pointer(&bus, sd_bus_flush_close_unref);
    }
};

/* Reads the clips, again if they were read before, and finds the requested one. */
CgiOutcome find_clip(const CgiRequest &request, Store *store, const ClientClip **clip)
{
    g_autoptr(GError) error = nullptr;
    *clip = nullptr;
    g_clear_pointer(&store->clips, g_ptr_array_unref);
    if (!store->bus) {
        store->bus = cgi_bus_open(&error);
    }
    store->clips = store->bus ? client_clips_list(store->bus, false, &error) : nullptr;
    if (!store->clips) {
        return cgi_bus_explain(error, "AddClip");
    }
    return cgi_bus_find_clip(store->clips, request, clip);
}

/* Sends a call of the legacy interface. Its errors have no text. */
CgiOutcome call_legacy(sd_bus *bus, sd_bus_message *message, GError *failure)
{
    g_autoptr(GError) error = failure;
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, message, &error);
    return answer ? CgiOutcome{} : cgi_bus_explain(error, "AddClip");
}

/* Sends the changed list to the on-screen controls. They may be missing, so a failure is ignored.
 */
void sync_controls(sd_bus *bus)
{
    GError *error = nullptr;
    sd_bus_message *message = client_bus_new_call(bus, &CLIENT_LEGACY, "Sync", &error, nullptr);
    call_legacy(bus, message, error);
}

CgiOutcome remove_record(sd_bus *bus, gint32 number)
{
    GError *error = nullptr;
    sd_bus_message *message =
        client_bus_new_call(bus, &CLIENT_LEGACY, "RemoveConfiguration", &error, "i", number);
    return call_legacy(bus, message, error);
}

CgiOutcome add_record(sd_bus *bus, const std::string &location, const std::string &name,
                      gint32 *number)
{
    g_autoptr(GError) error = nullptr;
    sd_bus_message *message = client_bus_new_call(bus, &CLIENT_SONOBRIK, "AddClip", &error, "sss",
                                                  location.c_str(), name.c_str(), "audio");
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, message, &error);
    if (!answer) {
        return g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_METHOD)
                   ? CgiOutcome{CGI_NOT_ADDED, ""}
                   : cgi_bus_explain(error, "AddClip");
    }
    return {sd_bus_message_read(answer, "i", number) < 0 ? CGI_REPLY : CGI_OK, ""};
}

/* Returns true if the daemon may have carried out a call that ended like this. */
bool is_uncertain(const CgiOutcome &outcome)
{
    return outcome.result == CGI_AWAY || outcome.result == CGI_SLOW || outcome.result == CGI_REPLY;
}

/* Lets the daemon decide whether it can play the uploaded file. */
CgiOutcome check_format(sd_bus *bus, const CgiUpload &upload)
{
    CgiOutcome outcome = cgi_bus_call(bus, "SupportedFile", upload.get_location().c_str(), CGI_OK);
    if (outcome.result != CGI_FAILED) {
        return outcome;
    }
    const std::string format = upload.get_refused_format();
    const std::string reason = format.empty()
                                   ? "It is damaged, or of a format that this device does not know."
                                   : "It is " + format + " file.";
    return {CGI_UNSUPPORTED,
            reason +
                " Convert it to Opus, MP3 or WAV first, for example: ffmpeg -i FILE clip.opus"};
}

/* Receives and checks the file. */
CgiOutcome receive(const CgiRequest &request, int body_fd, sd_bus *bus, CgiUpload *upload)
{
    CgiOutcome outcome = upload->receive(body_fd, request.body_length);
    return outcome.result == CGI_OK ? check_format(bus, *upload) : outcome;
}

/*
 * Makes the daemon read the length of a replaced file. The daemon reads it once for each record, so
 * the record is removed and added again. A new record gets the lowest free number, so this is
 * possible only if that is the clip's own.
 */
CgiOutcome refresh_record(const Store &store, const ClientClip &clip)
{
    constexpr const char *STALE = "The list keeps showing the length of the old recording.";
    if (!client_clips_is_lowest_free(store.clips, clip.number)) {
        return {CGI_REPLACED, STALE};
    }
    if (remove_record(store.bus, clip.number).result != CGI_OK) {
        return {CGI_REPLACED, STALE};
    }
    gint32 number = -1;
    const CgiOutcome outcome = add_record(store.bus, clip.location, clip.name, &number);
    if (outcome.result != CGI_OK) {
        return {outcome.result,
                "The recording was replaced, but the clip is no longer in the list."};
    }
    return {CGI_REPLACED,
            number == clip.number ? "" : "Its number is now " + std::to_string(number) + "."};
}

/* Removes the file of a removed clip. Returns a sentence if it is still there. */
std::string remove_file(const ClientClip &clip)
{
    const CgiPlace place = cgi_folder_find_place(clip.location);
    const int fd = place.folder.is_open() ? place.folder.get() : -1;
    if (fd >= 0 && (unlinkat(fd, place.name.c_str(), 0) == 0 || errno == ENOENT)) {
        return "";
    }
    return std::string("Its file could not be removed: ") +
           (errno == EXDEV ? "it is not in /etc/audioclips" : g_strerror(errno)) + ".";
}

} // namespace

CgiOutcome cgi_change_add(const CgiRequest &request, int body_fd)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = cgi_bus_open(&error);
    if (!bus) {
        return cgi_bus_explain(error, "AddClip");
    }
    CgiUpload upload;
    CgiOutcome outcome = receive(request, body_fd, bus, &upload);
    const std::string file = cgi_name_make_safe(request.file);
    std::string location;
    if (outcome.result == CGI_OK) {
        outcome = upload.place(file, &location);
    }
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    gint32 number = -1;
    const std::string name = request.name.empty() ? cgi_name_make_title(file) : request.name;
    outcome = add_record(bus, location, name, &number);
    if (outcome.result == CGI_OK) {
        return {CGI_ADDED, "Its number is " + std::to_string(number) + "."};
    }
    if (is_uncertain(outcome)) {
        outcome.detail += (outcome.detail.empty() ? "" : " ") + std::string("The file ") +
                          client_clips_relative(location.c_str()) + " was stored.";
    } else {
        upload.remove_placed(location);
    }
    return outcome;
}

CgiOutcome cgi_change_replace(const CgiRequest &request, int body_fd)
{
    Store store;
    const ClientClip *clip = nullptr;
    CgiOutcome outcome = find_clip(request, &store, &clip);
    if (!clip || outcome.result != CGI_OK) {
        return outcome;
    }
    CgiUpload upload;
    const std::string location = clip->location;
    outcome = receive(request, body_fd, store.bus, &upload);
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    /* That can take minutes: the number may be that of another clip by now. */
    outcome = find_clip(request, &store, &clip);
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    if (!clip || location != clip->location) {
        return {CGI_CHANGED, ""};
    }
    outcome = upload.replace(location);
    return outcome.result == CGI_OK ? refresh_record(store, *clip) : outcome;
}

CgiOutcome cgi_change_rename(const CgiRequest &request)
{
    Store store;
    const ClientClip *clip = nullptr;
    CgiOutcome outcome = find_clip(request, &store, &clip);
    if (!clip || outcome.result != CGI_OK) {
        return outcome;
    }
    GError *error = nullptr;
    sd_bus_message *message =
        client_clips_new_rename(store.bus, clip->number, request.name.c_str(), &error);
    outcome = call_legacy(store.bus, message, error);
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    sync_controls(store.bus);
    return {CGI_RENAMED, ""};
}

CgiOutcome cgi_change_remove(const CgiRequest &request)
{
    Store store;
    const ClientClip *clip = nullptr;
    CgiOutcome outcome = find_clip(request, &store, &clip);
    if (!clip || outcome.result != CGI_OK) {
        return outcome;
    }
    outcome = remove_record(store.bus, clip->number);
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    sync_controls(store.bus);
    if (!request.with_file) {
        return {CGI_REMOVED, "Its file was kept."};
    }
    return {CGI_REMOVED, client_clips_find_sharer(store.clips, clip)
                             ? "Its file was kept, because another clip uses it."
                             : remove_file(*clip)};
}
