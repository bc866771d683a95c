#include "ctl_clips.h"

#include "autoptr.h"
#include "client_bus.h"
#include "ctl.h"
#include "ctl_say.h"

GPtrArray *ctl_clips_list(sd_bus *bus, bool with_metadata, int *status)
{
    g_autoptr(GError) error = nullptr;
    GPtrArray *clips = client_clips_list(bus, with_metadata, &error);
    if (clips) {
        return clips;
    }
    CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_LEGACY,
        .method = "GetConfigurations",
    };
    /* A list with metadata takes two calls, and different users may make them. Finds out which of
     * the two was denied. */
    if (with_metadata && g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_DENIED)) {
        g_autoptr(GPtrArray) entries = client_clips_list(bus, false, nullptr);
        if (entries) {
            call.interface = &CLIENT_SONOBRIK;
            call.method = "GetMetadata";
        }
    }
    *status = ctl_explain(&call, error);
    return nullptr;
}

const ClientClip *ctl_clips_find(const GPtrArray *clips, const char *text, int *status)
{
    g_autoptr(GError) error = nullptr;
    const ClientClip *clip = client_clips_find(clips, text, &error);
    if (!clip) {
        const CtlCall call = {
            .interface = &CLIENT_LEGACY,
            .method = "GetConfigurations",
        };
        *status = ctl_explain(&call, error);
    }
    return clip;
}

std::string ctl_clips_absolute(const char *path)
{
    if (*path == '/') {
        return path;
    }
    while (g_str_has_prefix(path, "./")) {
        path += 2;
    }
    g_autofree char *folder = g_get_current_dir();
    g_autofree char *absolute = g_build_filename(folder, path, nullptr);
    return absolute;
}

bool ctl_clips_is_supported(sd_bus *bus, const char *path, GError **error)
{
    sd_bus_message *call =
        client_bus_new_call(bus, &CLIENT_SONOBRIK, "SupportedFile", error, "s", path);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, error);
    return answer != nullptr;
}

CtlCall ctl_clips_supported_call(sd_bus *bus, const char *path)
{
    return {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = "SupportedFile",
        .path = path,
    };
}
