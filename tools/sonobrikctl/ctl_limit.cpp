#include "ctl_limit.h"

#include <cstring>

#include "autoptr.h"
#include "client_clips.h"
#include "ctl_host.h"
#include "ctl_say.h"

namespace
{

constexpr const char *FILE_NAME = SONOBRIK_SYSCONFDIR "/vesk/parameters.conf";
constexpr const char *PARAMETER = "root.SonoBrik.MaxGroups";

/* Returns the limit as the stock platform reads it from its file: blanks around name and value do
 * not count, and the last of equal names wins. Returns 0 if there is none, or no number. */
gint64 read_limit()
{
    g_autofree char *text = nullptr;
    gint64 limit = 0;
    if (!g_file_get_contents(FILE_NAME, &text, nullptr, nullptr)) {
        return limit;
    }
    g_auto(GStrv) lines = g_strsplit(text, "\n", -1);
    for (char **line = lines; *line; line++) {
        char *value = strchr(*line, '=');
        if (!value) {
            continue;
        }
        *value++ = '\0';
        if (g_str_equal(g_strstrip(*line), PARAMETER)) {
            limit = 0;
            g_ascii_string_to_signed(g_strstrip(value), 10, 0, G_MAXINT32, &limit, nullptr);
        }
    }
    return limit;
}

} // namespace

bool ctl_limit_explain(sd_bus *bus)
{
    const gint64 limit = ctl_host() ? 0 : read_limit();
    g_autoptr(GPtrArray) clips = client_clips_list(bus, false, nullptr);
    if (limit <= 0 || !clips) {
        return false;
    }
    for (gint64 number = 0; number < limit; number++) {
        if (!client_clips_get(clips, number)) {
            return false;
        }
    }
    ctl_error("the list is full: it has %u clips, the limit is %" G_GINT64_FORMAT, clips->len,
              limit);
    ctl_error("remove a clip, or raise root.SonoBrik.MaxGroups in %s and restart the daemon: "
              "systemctl restart sonobrik",
              FILE_NAME);
    return true;
}
