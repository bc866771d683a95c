#include "ctl.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>

#include "autoptr.h"
#include "client_bus.h"
#include "ctl_ask.h"
#include "ctl_clips.h"
#include "ctl_host.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

/* Sends a call of the legacy interface, as ctl_send() does. */
int call_legacy(sd_bus *bus, const char *method, sd_bus_message *message, GError *failure)
{
    const CtlCall call = {.bus = bus, .interface = &CLIENT_LEGACY, .method = method};
    return ctl_send(&call, message, failure);
}

int set_name(sd_bus *bus, gint32 number, const char *name)
{
    GError *error = nullptr;
    sd_bus_message *message = client_clips_new_rename(bus, number, name, &error);
    return call_legacy(bus, "SetConfigurationEntry", message, error);
}

/*
 * Returns true if the user may delete the clip's file, which no other clip may have. Prints an
 * error otherwise. This is checked before the clip is removed, so that not half of it is done.
 */
bool may_delete(const GPtrArray *clips, const ClientClip &clip)
{
    const char *path = clip.location;
    if (client_clips_relative(path) == path || strstr(path, "/../")) {
        ctl_error("'%s' is not under %s, so sonobrikctl does not delete it", path,
                  CLIENT_CLIP_FOLDER);
        return false;
    }
    if (const ClientClip *other = client_clips_find_sharer(clips, &clip)) {
        ctl_error("clip %d has the same file, '%s'; remove only the clip, without --file",
                  other->number, path);
        return false;
    }
    g_autofree char *folder = g_path_get_dirname(path);
    if (access(folder, W_OK | X_OK) < 0 && errno != ENOENT) {
        ctl_error("cannot delete '%s': %s", path, g_strerror(errno));
        ctl_error("only root and members of group '" SONOBRIK_CONFIG_GROUP "' may do that");
        return false;
    }
    return true;
}

/* Deletes the file of a clip that was removed. Returns the exit status. */
int delete_file(const char *path)
{
    if (unlink(path) == 0 || errno == ENOENT) {
        return CTL_OK;
    }
    ctl_error("the clip is removed, but not its file: cannot delete '%s': %s", path,
              g_strerror(errno));
    return CTL_FAILED;
}

std::string make_question(const ClientClip &clip, bool with_file)
{
    const std::string name = "Remove clip " + std::to_string(clip.number) + " '" + clip.name + "'";
    const std::string file = std::string("file '") + clip.location + "'";
    return with_file ? name + " and its " + file + "?" : name + "? The " + file + " is kept.";
}

/* Asks about a name that another clip has. Without a terminal nobody is asked, and it is used.
 * Returns CTL_OK if the clip may get the name, or the exit status. */
int confirm_name(sd_bus *bus, const GPtrArray *clips, const ClientClip &clip, const char *name)
{
    const ClientClip *other = ctl_clips_find_name(clips, name, clip.number);
    int status = CTL_OK;
    if (!other || !ctl_ask_possible()) {
        return status;
    }
    if (!ctl_clips_ask_name(*other)) {
        ctl_error("clip not renamed");
        return CTL_FAILED;
    }
    g_autoptr(GPtrArray) unchanged = ctl_clips_list_unchanged(bus, clip, &status);
    return unchanged ? CTL_OK : status;
}

/* Asks whether to remove the clip. Returns CTL_OK if it may be removed, or the exit status. */
int confirm_removal(sd_bus *bus, const ClientClip &clip, bool with_file)
{
    if (!ctl_ask(make_question(clip, with_file))) {
        ctl_error("clip not removed");
        return CTL_FAILED;
    }
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = ctl_clips_list_unchanged(bus, clip, &status);
    /* During the question, another clip may have been added with this file. */
    return clips && with_file && !may_delete(clips, clip) ? CTL_FAILED : status;
}

using Change = std::function<int(const GPtrArray *clips, const ClientClip &clip)>;

/* Calls `change` with all clips and the one that `text` identifies. Returns the exit status. */
int change_clip(sd_bus *bus, const char *text, const Change &change)
{
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, false, &status);
    const ClientClip *clip = clips ? ctl_clips_find(clips, text, &status) : nullptr;
    return clip ? change(clips, *clip) : status;
}

} // namespace

int ctl_rename(const CtlCommand *command, char **words)
{
    const auto check = [](char **operands) {
        return ctl_clips_check_name(operands[1]) ? CTL_OK : CTL_USAGE;
    };
    const auto rename = [](sd_bus *bus, char **operands) {
        const char *name = operands[1];
        return change_clip(bus, operands[0],
                           [bus, name](const GPtrArray *clips, const ClientClip &clip) {
                               const int status = confirm_name(bus, clips, clip, name);
                               return status == CTL_OK ? set_name(bus, clip.number, name) : status;
                           });
    };
    return ctl_options_run(command, words, nullptr, check, rename);
}

int ctl_remove(const CtlCommand *command, char **words)
{
    gboolean is_sure = FALSE;
    gboolean with_file = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_flag("file", 'f', "Delete its file too", &with_file),
        ctl_options_flag("yes", 'y', "Do not ask for confirmation", &is_sure),
        {},
    };
    const auto check = [&is_sure, &with_file](char **) {
        if (with_file && ctl_host()) {
            ctl_error(
                "--file deletes files of this machine only; with --host, delete the file there, "
                "over ssh");
            return CTL_USAGE;
        }
        if (is_sure || ctl_ask_possible()) {
            return CTL_OK;
        }
        ctl_error("not a terminal, cannot ask for confirmation; use --yes");
        return CTL_USAGE;
    };
    const auto remove = [&](sd_bus *bus, const GPtrArray *clips, const ClientClip &clip) -> int {
        if (with_file && !may_delete(clips, clip)) {
            return CTL_FAILED;
        }
        int status = is_sure ? CTL_OK : confirm_removal(bus, clip, with_file);
        if (status != CTL_OK) {
            return status;
        }
        status = ctl_clips_remove(bus, clip.number);
        return status == CTL_OK && with_file ? delete_file(clip.location) : status;
    };
    return ctl_options_run(command, words, entries, check, [&](sd_bus *bus, char **operands) {
        return change_clip(bus, operands[0], [&](const GPtrArray *clips, const ClientClip &clip) {
            return remove(bus, clips, clip);
        });
    });
}

int ctl_sync(const CtlCommand *command, char **words)
{
    return ctl_options_run(command, words, nullptr, nullptr, [](sd_bus *bus, char **) {
        GError *error = nullptr;
        sd_bus_message *message = client_bus_new_call(bus, &CLIENT_LEGACY, "Sync", &error, nullptr);
        return call_legacy(bus, "Sync", message, error);
    });
}
