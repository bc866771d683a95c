#include "ctl.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_text.h"
#include "ctl_clips.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

constexpr size_t MAX_NAME = 255; /* bytes that the daemon takes */

/* Makes a call of the legacy interface that answers nothing. Takes `message`. */
int call_legacy(sd_bus *bus, const char *method, sd_bus_message *message, GError *failure)
{
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_LEGACY,
        .method = method,
        .path = nullptr,
    };
    g_autoptr(GError) error = failure;
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, message, &error);
    return answer ? CTL_OK : ctl_explain(&call, error);
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

/* Asks on the terminal. No answer is no. */
bool is_confirmed(const ClientClip &clip)
{
    g_autofree char *name = client_text_escape(clip.name);
    g_autofree char *location = client_text_escape(clip.location);
    fprintf(stderr, "Remove clip %d, '%s'? Its file '%s' stays. [y/N] ", clip.number, name,
            location);
    fflush(stderr);
    char line[16] = "";
    if (!fgets(line, sizeof line, stdin)) {
        fputc('\n', stderr);
        return false;
    }
    g_strstrip(line);
    return g_ascii_strcasecmp(line, "y") == 0 || g_ascii_strcasecmp(line, "yes") == 0;
}

} // namespace

int ctl_rename(const CtlCommand *command, char **words)
{
    g_auto(GStrv) operands = ctl_options_read(command, words, nullptr, 2, 2);
    if (!operands) {
        return CTL_USAGE;
    }
    const char *name = operands[1];
    if (!g_utf8_validate(name, -1, nullptr) || strlen(name) > MAX_NAME) {
        ctl_error("a name is UTF-8, and has %zu bytes at most", MAX_NAME);
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, false, &status);
    const ClientClip *clip = clips ? ctl_clips_find(clips, operands[0], &status) : nullptr;
    return clip ? set_name(bus, clip->number, name) : status;
}

int ctl_remove(const CtlCommand *command, char **words)
{
    gboolean is_sure = FALSE;
    const GOptionEntry entries[] = {
        {"yes", 'y', 0, G_OPTION_ARG_NONE, &is_sure, "Do not ask", nullptr},
        {},
    };
    g_auto(GStrv) operands = ctl_options_read(command, words, entries, 1, 1);
    if (!operands) {
        return CTL_USAGE;
    }
    if (!is_sure && !isatty(STDIN_FILENO)) {
        ctl_error("nobody can be asked here; to remove the clip without a question, give --yes");
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, false, &status);
    const ClientClip *clip = clips ? ctl_clips_find(clips, operands[0], &status) : nullptr;
    if (!clip) {
        return status;
    }
    if (!is_sure && !is_confirmed(*clip)) {
        ctl_error("the clip stays");
        return CTL_FAILED;
    }
    return remove_clip(bus, clip->number);
}

int ctl_sync(const CtlCommand *command, char **words)
{
    g_auto(GStrv) operands = ctl_options_read(command, words, nullptr, 0, 0);
    if (!operands) {
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    GError *error = nullptr;
    sd_bus_message *message = client_bus_new_call(bus, &CLIENT_LEGACY, "Sync", &error, nullptr);
    return call_legacy(bus, "Sync", message, error);
}
