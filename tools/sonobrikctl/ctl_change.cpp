#include "ctl.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <unistd.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_text.h"
#include "ctl_clips.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

constexpr size_t MAX_NAME = 255; /* bytes; the daemon accepts no longer names */

/* Sends a call of the legacy interface, as ctl_send() does. */
int call_legacy(sd_bus *bus, const char *method, sd_bus_message *message, GError *failure)
{
    const CtlCall call = {.bus = bus, .interface = &CLIENT_LEGACY, .method = method};
    return ctl_send(&call, message, failure);
}

int set_name(sd_bus *bus, gint32 number, const char *name)
{
    GError *error = nullptr;
    sd_bus_message *message = client_bus_new_call(bus, &CLIENT_LEGACY, "SetConfigurationEntry",
                                                  &error, "is", number, "Name");
    int r = message ? sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, "ay") : 0;
    if (message && r >= 0 &&
        (r = sd_bus_message_append_array(message, 'y', name, strlen(name))) >= 0) {
        r = sd_bus_message_close_container(message);
    }
    if (message && r < 0) {
        client_bus_set_error(&error, r, nullptr);
        sd_bus_message_unref(g_steal_pointer(&message));
    }
    return call_legacy(bus, "SetConfigurationEntry", message, error);
}

int remove_clip(sd_bus *bus, gint32 number)
{
    GError *error = nullptr;
    sd_bus_message *message =
        client_bus_new_call(bus, &CLIENT_LEGACY, "RemoveConfiguration", &error, "i", number);
    return call_legacy(bus, "RemoveConfiguration", message, error);
}

/* Asks the user for confirmation on the terminal. Anything but "y" or "yes" means no. */
bool is_confirmed(const ClientClip &clip)
{
    fprintf(stderr, "Remove clip %d '%s'? The file '%s' is kept. [y/N] ", clip.number,
            client_text_escape(clip.name).c_str(), client_text_escape(clip.location).c_str());
    fflush(stderr);
    char line[16] = "";
    if (!fgets(line, sizeof line, stdin)) {
        fputc('\n', stderr);
        return false;
    }
    g_strstrip(line);
    return g_ascii_strcasecmp(line, "y") == 0 || g_ascii_strcasecmp(line, "yes") == 0;
}

/* Calls `change` with the clip that `text` identifies. Returns the exit status. */
int change_clip(sd_bus *bus, const char *text, const std::function<int(const ClientClip &)> &change)
{
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, false, &status);
    const ClientClip *clip = clips ? ctl_clips_find(clips, text, &status) : nullptr;
    return clip ? change(*clip) : status;
}

} // namespace

int ctl_rename(const CtlCommand *command, char **words)
{
    const auto check = [](char **operands) {
        const char *name = operands[1];
        if (g_utf8_validate(name, -1, nullptr) && strlen(name) <= MAX_NAME) {
            return CTL_OK;
        }
        ctl_error("clip names must be valid UTF-8 and at most %zu bytes long", MAX_NAME);
        return CTL_USAGE;
    };
    return ctl_options_run(command, words, nullptr, check, [](sd_bus *bus, char **operands) {
        return change_clip(bus, operands[0], [bus, operands](const ClientClip &clip) {
            return set_name(bus, clip.number, operands[1]);
        });
    });
}

int ctl_remove(const CtlCommand *command, char **words)
{
    gboolean is_sure = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_flag("yes", 'y', "Do not ask for confirmation", &is_sure),
        {},
    };
    const auto check = [&is_sure](char **) {
        if (is_sure || isatty(STDIN_FILENO)) {
            return CTL_OK;
        }
        ctl_error("not a terminal, cannot ask for confirmation; use --yes");
        return CTL_USAGE;
    };
    const auto remove = [&is_sure](sd_bus *bus, char **operands) {
        return change_clip(bus, operands[0], [bus, &is_sure](const ClientClip &clip) -> int {
            if (is_sure || is_confirmed(clip)) {
                return remove_clip(bus, clip.number);
            }
            ctl_error("clip not removed");
            return CTL_FAILED;
        });
    };
    return ctl_options_run(command, words, entries, check, remove);
}

int ctl_sync(const CtlCommand *command, char **words)
{
    return ctl_options_run(command, words, nullptr, nullptr, [](sd_bus *bus, char **) {
        GError *error = nullptr;
        sd_bus_message *message = client_bus_new_call(bus, &CLIENT_LEGACY, "Sync", &error, nullptr);
        return call_legacy(bus, "Sync", message, error);
    });
}
