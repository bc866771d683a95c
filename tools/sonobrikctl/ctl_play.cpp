#include "ctl.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_events.h"
#include "client_play.h"
#include "ctl_clips.h"
#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_wait.h"

namespace
{

constexpr gint64 MAX_VOLUME = 1000;
constexpr gint64 MAX_OUTPUT = 5;

/* What is to be played. */
struct Target {
    std::string location;
    std::string label; /* for people: the clip's name or the location */
    gint32 number;     /* of the clip, or -1 */
    gint64 length_ms;  /* negative if it is not known */
};

struct Options {
    char *volume;
    char *repeat;
    char *output;
    char *device;
    char *device_output;
    gboolean is_waiting;
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
        ctl_error("--device and --device-output go together");
        return false;
    }
    if (options.output && options.device) {
        ctl_error("give --output, or --device and --device-output, not both");
        return false;
    }
    if (options.repeat && g_str_equal(options.repeat, "forever")) {
        play->repeat = -1;
    } else if (!ctl_options_number("--repeat", options.repeat, 0, G_MAXINT32, &play->repeat)) {
        ctl_error("or 'forever'");
        return false;
    }
    return ctl_options_number("--volume", options.volume, 0, MAX_VOLUME, &play->volume) &&
           ctl_options_number("--output", options.output, 0, MAX_OUTPUT, &play->output) &&
           ctl_options_number("--device", options.device, 0, G_MAXINT32, &play->device) &&
           ctl_options_number("--device-output", options.device_output, 0, G_MAXINT32,
                              &play->device_output);
}

bool has_wildcards(const char *path)
{
    const char *slash = strrchr(path, '/');
    return strpbrk(slash ? slash : path, "*?") != nullptr;
}

bool exists(const char *path)
{
    struct stat found = {};
    return lstat(path, &found) == 0;
}

bool is_path(const char *text)
{
    return *text == '/' || g_str_has_prefix(text, "./") || g_str_has_prefix(text, "../");
}

/* Takes a file or a pattern. False, after a line, for a folder. */
bool take_file(const char *text, Target *target, int *status)
{
    target->location = ctl_clips_absolute(text);
    target->label = text;
    if (g_file_test(text, G_FILE_TEST_IS_DIR)) {
        ctl_error("'%s' is a folder; for one of its clips at random: sonobrikctl play '%s%s*'",
                  text, text, g_str_has_suffix(text, "/") ? "" : "/");
        *status = CTL_USAGE;
        return false;
    }
    return true;
}

int explain_failure(const CtlCall &call, const Target &target, const GError *error)
{
    const bool is_gone = target.number >= 0 && error->code == CLIENT_ERROR_METHOD &&
                         !exists(target.location.c_str()) && errno == ENOENT;
    if (is_gone) {
        ctl_error("the file of clip %d is gone: '%s'", target.number, target.location.c_str());
        ctl_error("bring it back, or remove the clip: sonobrikctl remove %d", target.number);
        return CTL_NO_CLIP;
    }
    return ctl_explain(&call, error);
}

/*
 * Takes a stored clip. Its file has to be there if its name holds wildcards: the daemon would
 * otherwise play others that they match.
 */
bool take_clip(sd_bus *bus, const ClientClip &clip, Target *target, int *status)
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
    if (!has_wildcards(clip.location) || ctl_clips_is_supported(bus, clip.location, &error)) {
        return true;
    }
    const CtlCall call = ctl_clips_supported_call(bus, clip.location);
    *status = explain_failure(call, *target, error);
    return false;
}

/* Whether the only fault of `text` is that no clip is called so. */
bool is_no_name(const GPtrArray *clips, const char *text)
{
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        if (g_str_equal(clip->name, text)) {
            return false;
        }
    }
    return true;
}

/* Finds what `text` means: a path that can be nothing else, a clip, or else a file or a pattern. */
bool find_target(sd_bus *bus, const char *text, bool with_length, Target *target, int *status)
{
    if (is_path(text)) {
        return take_file(text, target, status);
    }
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, with_length, status);
    if (!clips) {
        return false;
    }
    const ClientClip *clip = client_clips_find(clips, text, nullptr);
    if (!clip && is_no_name(clips, text) && (exists(text) || has_wildcards(text))) {
        return take_file(text, target, status);
    }
    if (!clip) {
        clip = ctl_clips_find(clips, text, status);
    }
    return clip && take_clip(bus, *clip, target, status);
}

/* The length of all repeats; negative if it is not known, or endless. */
gint64 total_length(const Target &target, const ClientPlay &play)
{
    const gint64 repeat = play.repeat == CLIENT_NOT_GIVEN ? 0 : play.repeat;
    return target.length_ms < 0 || repeat < 0 ? -1 : target.length_ms * (repeat + 1);
}

/*
 * While somebody else's PlayClip plays, another one is answered as if it had played. Whoever waits
 * for the end of a clip is told instead.
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

int start(sd_bus *bus, const Target &target, ClientPlay *play, bool is_waiting)
{
    if (is_waiting && is_busy(bus)) {
        ctl_error("A clip is already playing.");
        ctl_error("stop it with 'sonobrikctl stop', or wait for its end");
        return CTL_FAILED;
    }
    play->location = target.location.c_str();
    g_autofree char *text = client_play_options(play);
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = is_waiting ? "PlayClip" : "StartPlayingClip",
        .path = play->location,
    };
    g_autoptr(GError) error = nullptr;
    sd_bus_message *message =
        client_bus_new_call(bus, call.interface, call.method, &error, "s", text);
    if (is_waiting && message) {
        const CtlWaitResult result =
            ctl_wait(bus, message, total_length(target, *play), target.label.c_str(), &error);
        if (result.signal != 0) {
            return error ? ctl_explain(&result.stop, error) : CTL_SIGNAL + result.signal;
        }
    } else {
        sd_bus_message_unref(client_bus_call(bus, message, &error));
    }
    return error ? explain_failure(call, target, error) : CTL_OK;
}

} // namespace

int ctl_play(const CtlCommand *command, char **words)
{
    g_auto(Options) options = {};
    const GOptionEntry entries[] = {
        {"volume", 'v', 0, G_OPTION_ARG_FILENAME, &options.volume, "In percent, 0 to 1000", "N"},
        {"repeat", 'r', 0, G_OPTION_ARG_FILENAME, &options.repeat,
         "Play so many times more, or until stopped", "N|forever"},
        {"output", 'o', 0, G_OPTION_ARG_FILENAME, &options.output,
         "On this output, 0 to 5, instead of the lowest there is", "N"},
        {"device", 0, 0, G_OPTION_ARG_FILENAME, &options.device,
         "On this audio device, with --device-output", "D"},
        {"device-output", 0, 0, G_OPTION_ARG_FILENAME, &options.device_output,
         "On this output of the device", "O"},
        {"wait", 'w', 0, G_OPTION_ARG_NONE, &options.is_waiting,
         "Wait for the end; Ctrl-C stops the clip", nullptr},
        {},
    };
    ClientPlay play = {.location = nullptr};
    g_auto(GStrv) operands = ctl_options_read(command, words, entries, 1, 1);
    if (!operands || !read_numbers(options, &play)) {
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    Target target = {.location = "", .label = "", .number = -1, .length_ms = -1};
    const bool with_length = options.is_waiting && ctl_wait_shows_progress();
    int status = CTL_OK;
    if (!find_target(bus, operands[0], with_length, &target, &status)) {
        return status;
    }
    return start(bus, target, &play, options.is_waiting);
}

int ctl_stop(const CtlCommand *command, char **words)
{
    g_auto(GStrv) operands = ctl_options_read(command, words, nullptr, 0, 0);
    if (!operands) {
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    const CtlCall call = ctl_wait_stop_call(bus);
    g_autoptr(GError) error = nullptr;
    sd_bus_message *message =
        client_bus_new_call(bus, call.interface, call.method, &error, "s", "");
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, message, &error);
    return answer ? CTL_OK : ctl_explain(&call, error);
}
