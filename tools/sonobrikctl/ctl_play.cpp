#include "ctl.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_events.h"
#include "client_play.h"
#include "ctl_clips.h"
#include "ctl_host.h"
#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_wait.h"

namespace
{

constexpr gint32 NO_CLIP = -1;

/* What to play. */
struct Target {
    std::string location;
    std::string label; /* shown beside the progress bar: the name or the location */
    gint32 number;     /* the clip's number, or -1 */
    gint64 length_ms;  /* negative if unknown */
};

struct Options {
    char *volume;
    char *repeat;
    char *output;
    char *device;
    char *device_output;
    gboolean is_waiting;
    gboolean is_replacing;
};

void clear_options(Options *options)
{
    g_free(options->volume);
    g_free(options->repeat);
    g_free(options->output);
    g_free(options->device);
    g_free(options->device_output);
}
G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(Options, clear_options)

bool read_numbers(const Options &options, ClientPlay *play)
{
    if ((options.device == nullptr) != (options.device_output == nullptr)) {
        ctl_error("--device and --device-output must be used together");
        return false;
    }
    if (options.output && options.device) {
        ctl_error("--output cannot be combined with --device and --device-output");
        return false;
    }
    if (options.repeat && g_str_equal(options.repeat, "forever")) {
        play->repeat = -1;
    } else if (!ctl_options_number("--repeat", options.repeat, 0, G_MAXINT32, &play->repeat)) {
        ctl_error("to repeat until stopped: --repeat forever");
        return false;
    }
    return ctl_options_number("--volume", options.volume, 0, CLIENT_MAX_VOLUME, &play->volume) &&
           ctl_options_number("--output", options.output, 0, CLIENT_MAX_OUTPUT, &play->output) &&
           ctl_options_number("--device", options.device, 0, G_MAXINT32, &play->device) &&
           ctl_options_number("--device-output", options.device_output, 0, G_MAXINT32,
                              &play->device_output);
}

/* Returns true if there is such a file, or if there may be one on another machine; there, a path
 * with wildcards is taken for a pattern. */
bool may_exist(const char *path)
{
    struct stat found = {};
    return ctl_host() ? !client_play_has_wildcards(path) : lstat(path, &found) == 0;
}

bool is_path(const char *text)
{
    return *text == '/' || g_str_has_prefix(text, "./") || g_str_has_prefix(text, "../");
}

/* Makes a file or a pattern the target. Prints an error and returns false for a folder, and for a
 * relative path with --host. */
bool use_file(const char *text, Target *target, int *status)
{
    if (!ctl_host_check_path(text)) {
        *status = CTL_USAGE;
        return false;
    }
    target->location = ctl_clips_absolute(text);
    target->label = text;
    if (!ctl_host() && g_file_test(text, G_FILE_TEST_IS_DIR)) {
        ctl_error("'%s' is a directory; to play a random file in it: sonobrikctl play '%s%s*'",
                  text, text, g_str_has_suffix(text, "/") ? "" : "/");
        *status = CTL_USAGE;
        return false;
    }
    return true;
}

/* Returns the outputs as "0, 1"; empty if there are none. Returns null if they are not known. */
std::optional<std::string> list_outputs(sd_bus *bus)
{
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus, nullptr);
    if (!outputs) {
        return std::nullopt;
    }
    std::string text;
    for (guint i = 0; i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        text += (text.empty() ? "" : ", ") + std::to_string(output->output);
    }
    return text;
}

/* Returns false if the daemon is known not to have the output of a request. Devices are not known:
 * one that has PCMs "deviceD_outputO" but no "audiosinkD" has no events. */
bool may_have_output(sd_bus *bus, const ClientPlay &play)
{
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus, nullptr);
    bool is_there = !outputs || play.output == CLIENT_NOT_GIVEN;
    for (guint i = 0; !is_there && i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        is_there = output->output == play.output;
    }
    return is_there;
}

/*
 * Explains why the daemon rejects the options. Its own text repeats them in the form in which they
 * are sent, which the user has not written. The options are checked before they are sent, so the
 * output is what remains.
 */
int explain_options(sd_bus *bus, const ClientPlay &play)
{
    const std::optional<std::string> outputs = list_outputs(bus);
    if (outputs && outputs->empty()) {
        ctl_error("there is no audio output");
        ctl_error("check that a sound card is present: %s", ctl_host_command("aplay -l").c_str());
    } else if (play.output != CLIENT_NOT_GIVEN) {
        ctl_error("there is no output %" G_GINT64_FORMAT "%s%s", play.output,
                  outputs ? "; the outputs are: " : "", outputs ? outputs->c_str() : "");
        ctl_error("for more about them: %s", ctl_host_self("outputs").c_str());
    } else {
        ctl_error("the daemon rejects the request; for details: %s",
                  ctl_host_command(CTL_READ_LOG).c_str());
    }
    return CTL_FAILED;
}

/* Returns true if the kernel has no sound card. */
bool has_no_card()
{
    g_autofree char *cards = nullptr;
    return !g_file_get_contents("/proc/asound/cards", &cards, nullptr, nullptr) ||
           strstr(cards, "no soundcards");
}

/* Explains why the output could not be opened. */
int explain_output(const GError *error)
{
    ctl_error("%s", error->message);
    if (!ctl_host() && has_no_card()) {
        ctl_error("this machine has no sound card, or its driver is not loaded; to list the cards: "
                  "aplay -l");
    } else {
        ctl_error("the output may be unplugged or in use by another program; for details: %s",
                  ctl_host_command(CTL_READ_LOG).c_str());
    }
    return CTL_FAILED;
}

int explain_failure(const CtlCall &call, const Target &target, const GError *error)
{
    const bool is_missing = !ctl_host() && target.number >= 0 &&
                            error->code == CLIENT_ERROR_METHOD &&
                            !may_exist(target.location.c_str()) && errno == ENOENT;
    if (is_missing) {
        ctl_error("the file of clip %d is missing: '%s'", target.number, target.location.c_str());
        ctl_error("restore it, or remove the clip: sonobrikctl remove %d", target.number);
        return CTL_NO_CLIP;
    }
    /* The text for a file does not tell a missing file from an unsupported one; that of
     * SupportedFile does. */
    g_autoptr(GError) reason = nullptr;
    if (error->code == CLIENT_ERROR_METHOD &&
        g_str_has_prefix(error->message, CLIENT_TEXT_NO_FILE) &&
        may_exist(target.location.c_str()) &&
        !ctl_clips_is_supported(call.bus, target.location.c_str(), &reason) &&
        reason->code == CLIENT_ERROR_METHOD) {
        return ctl_explain(&call, reason);
    }
    return ctl_explain(&call, error);
}

/*
 * Makes a stored clip the target. If the file name contains wildcards, checks that the file can be
 * played: otherwise the daemon would play other files that match the name.
 */
bool use_clip(sd_bus *bus, const ClientClip &clip, Target *target, int *status)
{
    target->location = clip.location;
    target->label = *clip.name != '\0' ? clip.name : clip.location;
    target->number = clip.number;
    target->length_ms = clip.duration_ms;
    if (target->location.empty()) {
        ctl_error("clip %d has no file", clip.number);
        *status = CTL_NO_CLIP;
        return false;
    }
    g_autoptr(GError) error = nullptr;
    if (!client_play_has_wildcards(clip.location) ||
        ctl_clips_is_supported(bus, clip.location, &error)) {
        return true;
    }
    const CtlCall call = ctl_clips_supported_call(bus, clip.location);
    *status = explain_failure(call, *target, error);
    return false;
}

/*
 * Finds out what `text` means, in this order: an explicit path, the number or name of a clip, a
 * file in the current folder, the file of a clip, a pattern in the current folder.
 */
bool find_target(sd_bus *bus, const char *text, bool with_length, Target *target, int *status)
{
    if (is_path(text)) {
        return use_file(text, target, status);
    }
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, with_length, status);
    if (!clips) {
        return false;
    }
    const bool is_clip =
        client_clips_find(clips, text, nullptr) || ctl_clips_find_name(clips, text, NO_CLIP);
    if (!is_clip &&
        ((!ctl_host() && may_exist(text)) ||
         (client_play_has_wildcards(text) && ctl_clips_find_file(clips, text).empty()))) {
        return use_file(text, target, status);
    }
    const ClientClip *clip = ctl_clips_find(clips, text, status);
    return clip && use_clip(bus, *clip, target, status);
}

/* Returns the length of all plays together; negative if it is unknown or infinite. */
gint64 total_length(const Target &target, const ClientPlay &play)
{
    const gint64 repeat = play.repeat == CLIENT_NOT_GIVEN ? 0 : play.repeat;
    return target.length_ms < 0 || repeat < 0 ? -1 : target.length_ms * (repeat + 1);
}

/*
 * Returns true if an output is playing. "play --wait" checks this first, because the daemon replies
 * OK to a second PlayClip without playing its clip.
 */
bool is_busy(sd_bus *bus)
{
    g_autoptr(GPtrArray) outputs = client_outputs_list(bus, nullptr);
    for (guint i = 0; outputs && i < outputs->len; i++) {
        const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
        if (output->playing) {
            return true;
        }
    }
    return false;
}

/* Returns false if no file that `pattern` matches can be played. Returns true if this user cannot
 * find out. Matches as the daemon does. */
bool may_match(sd_bus *bus, const char *pattern)
{
    g_autofree char *folder = g_path_get_dirname(pattern);
    g_autofree char *last = g_path_get_basename(pattern);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDir) dir = ctl_host() ? nullptr : g_dir_open(folder, 0, &error);
    if (!dir) {
        return !g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT);
    }
    g_autofree char *valid = g_utf8_make_valid(last, -1);
    g_autoptr(GPatternSpec) wildcard = g_pattern_spec_new(valid);
    while (const char *name = g_dir_read_name(dir)) {
        g_autofree char *text = g_utf8_make_valid(name, -1);
        g_autofree char *path = g_build_filename(folder, name, nullptr);
        g_autoptr(GError) failure = nullptr;
        if (g_pattern_spec_match_string(wildcard, text) &&
            (ctl_clips_is_supported(bus, path, &failure) ||
             !g_error_matches(failure, CLIENT_ERROR, CLIENT_ERROR_METHOD))) {
            return true;
        }
    }
    return false;
}

/* Stops what plays, but only if the new target can be played. Returns an exit status. */
int make_way(sd_bus *bus, const Target &target, const ClientPlay &play)
{
    g_autoptr(GError) error = nullptr;
    if (!may_have_output(bus, play)) {
        return explain_options(bus, play);
    }
    const char *path = target.location.c_str();
    const bool is_pattern = client_play_has_wildcards(path) && !may_exist(path);
    if (!is_pattern && !ctl_clips_is_supported(bus, path, &error)) {
        return explain_failure(ctl_clips_supported_call(bus, path), target, error);
    }
    if (is_pattern && !may_match(bus, path)) {
        const CtlCall play_call = {
            .bus = bus,
            .interface = &CLIENT_SONOBRIK,
            .method = "StartPlayingClip",
            .path = path,
        };
        g_set_error(&error, CLIENT_ERROR, CLIENT_ERROR_METHOD, "%s '%s'.", CLIENT_TEXT_NO_FILE,
                    path);
        return explain_failure(play_call, target, error);
    }
    const CtlCall call = ctl_wait_stop_call(bus);
    GError *failure = nullptr;
    sd_bus_message *stop = client_bus_new_call(bus, call.interface, call.method, &failure, "s", "");
    return ctl_send(&call, stop, failure);
}

int explain_refusal(const CtlCall &call, const Target &target, const ClientPlay &play,
                    const GError *error)
{
    if (error->code == CLIENT_ERROR_METHOD) {
        if (g_str_has_prefix(error->message, CLIENT_TEXT_BAD_OPTIONS)) {
            return explain_options(call.bus, play);
        }
        if (g_str_has_prefix(error->message, CLIENT_TEXT_NO_OUTPUT)) {
            return explain_output(error);
        }
    }
    return explain_failure(call, target, error);
}

/*
 * Stops the clip over another connection. Ctrl-C on a terminal reaches ssh too, which may end
 * before the stop has passed through it.
 */
int stop_again()
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = client_bus_open_remote(ctl_host(), &error);
    if (!bus) {
        return ctl_explain_bus(error);
    }
    const CtlCall call = ctl_wait_stop_call(bus);
    GError *failure = nullptr;
    sd_bus_message *stop = client_bus_new_call(bus, call.interface, call.method, &failure, "s", "");
    return ctl_send(&call, stop, failure);
}

/* Returns the exit status after a signal, which has stopped the clip unless there is an error. */
int end_by_signal(const CtlWaitResult &result, const GError *error)
{
    int status = CTL_OK;
    if (error) {
        status =
            ctl_host() && error->code != CLIENT_ERROR_METHOD && error->code != CLIENT_ERROR_DENIED
                ? stop_again()
                : ctl_explain(&result.stop, error);
    }
    return status == CTL_OK ? CTL_SIGNAL + result.signal : status;
}

int start_playing(sd_bus *bus, const Target &target, ClientPlay *play, bool is_waiting)
{
    play->location = target.location.c_str();
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = is_waiting ? "PlayClip" : "StartPlayingClip",
        .path = play->location,
    };
    if (is_waiting && is_busy(bus)) {
        g_autoptr(GError) busy =
            g_error_new_literal(CLIENT_ERROR, CLIENT_ERROR_METHOD, CLIENT_TEXT_BUSY);
        return ctl_explain(&call, busy);
    }
    g_autofree char *text = client_play_options(play);
    g_autoptr(GError) error = nullptr;
    sd_bus_message *message =
        client_bus_new_call(bus, call.interface, call.method, &error, "s", text);
    if (is_waiting && message) {
        const CtlWaitResult result =
            ctl_wait(bus, message, total_length(target, *play), target.label.c_str(), &error);
        if (result.signal != 0) {
            return end_by_signal(result, error);
        }
    } else {
        sd_bus_message_unref(client_bus_call(bus, message, &error));
    }
    return error ? explain_refusal(call, target, *play, error) : CTL_OK;
}

} // namespace

int ctl_play(const CtlCommand *command, char **words)
{
    g_auto(Options) options = {};
    const GOptionEntry entries[] = {
        ctl_options_value("volume", 'v', "Volume in percent, 0 to 1000 (default: 100)", "N",
                          &options.volume),
        ctl_options_value("repeat", 'r', "Repeat N more times, or until stopped", "N|forever",
                          &options.repeat),
        ctl_options_value("output", 'o', "Audio output, 0 to 5 (default: the lowest)", "N",
                          &options.output),
        ctl_options_value("device", 0, "Audio device; needs --device-output", "D", &options.device),
        ctl_options_value("device-output", 0, "Output of that audio device", "O",
                          &options.device_output),
        ctl_options_flag("replace", 0, "Stop what is playing first", &options.is_replacing),
        ctl_options_flag("wait", 'w', "Wait until the clip ends; Ctrl-C stops it",
                         &options.is_waiting),
        {},
    };
    ClientPlay play = {.location = nullptr};
    const auto check = [&](char **) {
        return read_numbers(options, &play) ? CTL_OK : CTL_USAGE;
    };
    const auto find_and_play = [&](sd_bus *bus, char **operands) {
        Target target = {.location = "", .label = "", .number = NO_CLIP, .length_ms = -1};
        const bool with_length = options.is_waiting && ctl_wait_shows_progress();
        int status = CTL_OK;
        if (!find_target(bus, operands[0], with_length, &target, &status) ||
            (options.is_replacing && (status = make_way(bus, target, play)) != CTL_OK)) {
            return status;
        }
        return start_playing(bus, target, &play, options.is_waiting);
    };
    return ctl_options_run(command, words, entries, check, find_and_play);
}

int ctl_stop(const CtlCommand *command, char **words)
{
    return ctl_options_run(command, words, nullptr, nullptr, [](sd_bus *bus, char **) {
        const CtlCall call = ctl_wait_stop_call(bus);
        GError *error = nullptr;
        sd_bus_message *message =
            client_bus_new_call(bus, call.interface, call.method, &error, "s", "");
        return ctl_send(&call, message, error);
    });
}
