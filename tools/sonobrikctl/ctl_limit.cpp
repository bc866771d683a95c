#include "ctl_limit.h"

#include <cstring>

#include "autoptr.h"
#include "client_clips.h"
#include "ctl_host.h"
#include "ctl_say.h"

namespace
{

constexpr const char *FILE_NAME = SONOBRIK_SYSCONFDIR "/vesk/parameters.conf";
constexpr const char *PARAMETER = "root.SonoBrik.MaxGroups=";

/* Returns the limit from the stock platform's file, where the last of equal names wins; 0 if it is
 * not there. */
gint64 read_limit()
{
    g_autofree char *text = nullptr;
    gint64 limit = 0;
    if (!g_file_get_contents(FILE_NAME, &text, nullptr, nullptr)) {
        return limit;
    }
    g_auto(GStrv) lines = g_strsplit(text, "\n", -1);
    for (char **line = lines; *line; line++) {
        if (g_str_has_prefix(*line, PARAMETER)) {
            limit = g_ascii_strtoll(*line + strlen(PARAMETER), nullptr, 10);
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
