#include "discover_media_supported.h"

#include <glib.h>

#include "autoptr.h"
#include "discover_media.h"
#include "log_level.h"

namespace
{

bool codec_contains(json_t *media_info, const char *name)
{
    const char *codec = nullptr;
    if (json_unpack(media_info, "{s:{s:s}}", "properties", "audio_codec", &codec) != 0) {
        log_error("%sCould not unpack property: '%s'.", "", "audio_codec");
    }
    return codec && g_strrstr(codec, name);
}

bool media_type_always_supported(json_t *)
{
    return true;
}

/*
 * AAC (MPEG-2 and MPEG-4) has the same media type and is refused. MP3 passes at every sample rate:
 * GStreamer calls the lower rates, which MPEG-2 added, "MPEG-1 Layer 3" too.
 */
bool media_type_mpeg_supported(json_t *media_info)
{
    return codec_contains(media_info, "MPEG-1");
}

bool media_type_au_supported(json_t *media_info)
{
    return codec_contains(media_info, "Sun .au");
}

bool media_type_wav_supported(json_t *media_info)
{
    return codec_contains(media_info, "WAV");
}

struct SupportedMediaType {
    const char *media_type;
    bool (*is_supported)(json_t *media_info);
};

constexpr SupportedMediaType supported_media_types[] = {
    {"audio/x-mulaw", media_type_always_supported}, {"audio/mpeg", media_type_mpeg_supported},
    {"audio/x-opus", media_type_always_supported},  {"audio/x-vorbis", media_type_always_supported},
    {"audio/x-au", media_type_au_supported},        {"audio/x-wav", media_type_wav_supported},
};

/* Returns the array's last media type, borrowed; null with a log line if it is not a string. */
const char *determine_media_type(json_t *media_types)
{
    const char *media_type =
        json_string_value(json_array_get(media_types, json_array_size(media_types) - 1));
    if (!media_type) {
        log_error("%s%s was called with invalid arguments", "", "determine_media_type");
    }
    return media_type;
}

bool media_type_is_supported(const char *media_type, json_t *media_info)
{
    for (const SupportedMediaType &row : supported_media_types) {
        if (g_strcmp0(row.media_type, media_type) == 0) {
            return row.is_supported(media_info);
        }
    }
    return false;
}

/* Returns the media types of the file, borrowed from `media_info`, or null if it has none. */
json_t *discover_media_types(const char *path, json_t *media_info)
{
    if (!discover_media(path, media_info)) {
        return nullptr;
    }
    json_t *media_types = nullptr;
    if (json_unpack(media_info, "{s:o}", "media_types", &media_types) != 0) {
        log_error("%sCould not unpack '%s'", "", "media_types");
        return nullptr;
    }
    return json_array_size(media_types) > 0 ? media_types : nullptr;
}

/* Sets the caller's message, unless the caller passed null or a message is already there. */
void explain(char **error_message, const char *format, const char *path) G_GNUC_PRINTF(2, 0);

void explain(char **error_message, const char *format, const char *path)
{
    if (error_message && !*error_message) {
        *error_message = g_strdup_printf(format, path);
    }
}

} // namespace

bool discover_media_is_supported(const char *path, char **error_message)
{
    g_autoptr(json_t) media_info = json_object();
    json_t *media_types = discover_media_types(path, media_info);
    if (!media_types) {
        explain(error_message, "Could not determine the media format of file: '%s'", path);
        return false;
    }
    const char *media_type = determine_media_type(media_types);
    if (!media_type || !media_type_is_supported(media_type, media_info)) {
        explain(error_message, "'%s' is not supported on this device.", path);
        return false;
    }
    return true;
}
