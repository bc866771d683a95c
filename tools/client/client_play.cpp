#include "client_play.h"

#include <cstring>

char *client_play_options(const ClientPlay *play)
{
    const struct {
        const char *key;
        gint64 value;
    } numbers[] = {
        {"volume", play->volume},
        {"repeat", play->repeat},
        {"audiooutput", play->output},
        {"audiodeviceid", play->device},
        {"audiooutputid", play->device_output},
    };
    g_autofree char *location = g_uri_escape_string(play->location, "/", FALSE);
    GString *options = g_string_new("location=");
    g_string_append(options, location);
    for (const auto &number : numbers) {
        if (number.value != CLIENT_NOT_GIVEN) {
            g_string_append_printf(options, "&%s=%" G_GINT64_FORMAT, number.key, number.value);
        }
    }
    return g_string_free(options, FALSE);
}

bool client_play_has_wildcards(const char *path)
{
    const char *slash = strrchr(path, '/');
    return strpbrk(slash ? slash : path, "*?") != nullptr;
}
