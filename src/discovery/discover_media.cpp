#include "discover_media.h"

#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "log_level.h"

namespace
{

constexpr GstClockTime DISCOVERER_TIMEOUT = 5 * GST_SECOND;

/*
 * Opening a FIFO, a socket or a device may block for ever, outside the discoverer's time-out, and
 * none of them holds a clip.
 */
bool is_regular_file(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

/* The entries tell an installer of plugins what to look for; the daemon has none to pass them to.
 */
void walk_missing_plugins(GstDiscovererInfo *info)
{
    const char **details = gst_discoverer_info_get_missing_elements_installer_details(info);
    while (details && *details) {
        details++;
    }
}

/*
 * Runs the discoverer over the file. Returns a new reference to what it found, or null with a log
 * line.
 */
GstDiscovererInfo *probe(const char *path)
{
    g_autoptr(GError) error = nullptr;
    g_autofree char *uri = gst_filename_to_uri(path, &error);
    if (error) {
        g_info("%sCould not create uri from path '%s', error message '%s'.", "", path,
               error->message);
        return nullptr;
    }
    g_autoptr(GstDiscoverer) discoverer = gst_discoverer_new(DISCOVERER_TIMEOUT, &error);
    if (!discoverer) {
        g_warning("%sError creating discoverer instance: '%s'.", "", error->message);
        return nullptr;
    }
    g_autoptr(GstDiscovererInfo) info = gst_discoverer_discover_uri(discoverer, uri, &error);
    if (!info) {
        /* The line names the reason where a reader would expect the URI; it is kept so. */
        g_warning("%sError discovering uri '%s'.", "", error ? error->message : "");
        return nullptr;
    }

    const GstDiscovererResult result = gst_discoverer_info_get_result(info);
    switch (result) {
    case GST_DISCOVERER_OK:
        return g_steal_pointer(&info);
    case GST_DISCOVERER_ERROR:
        g_info("%sDiscoverer error: '%s'.", "", error ? error->message : "");
        return nullptr;
    case GST_DISCOVERER_MISSING_PLUGINS:
        g_info("%sMissing plugins for analyzing file '%s'.", "", path);
        walk_missing_plugins(info);
        return nullptr;
    default:
        g_info("%sUnexpected result when discovering '%s', (code: %d).", "", path, result);
        return nullptr;
    }
}

/* The cut to 32 bits is meant: readers of stored metadata know the duration as a 32-bit number. */
json_t *duration_ms(const GstDiscovererInfo *info)
{
    const guint64 ms = gst_discoverer_info_get_duration(info) / GST_MSECOND;
    return json_integer(static_cast<gint32>(ms));
}

bool parse_stream_or_log(GstDiscovererStreamInfo *info, json_t *media_types, json_t *properties)
{
    if (!discover_media_parse_stream(info, media_types, properties)) {
        log_error("%sFailed to parse stream properties.", "");
        return false;
    }
    return true;
}

/* One child that cannot be described does not spoil the file: the results are ignored on purpose.
 */
void parse_children(GstDiscovererContainerInfo *container, json_t *media_types, json_t *properties)
{
    GList *streams = gst_discoverer_container_info_get_streams(container);
    for (GList *stream = streams; stream; stream = stream->next) {
        if (GST_IS_DISCOVERER_CONTAINER_INFO(stream->data) ||
            GST_IS_DISCOVERER_AUDIO_INFO(stream->data)) {
            discover_media_parse_stream(GST_DISCOVERER_STREAM_INFO(stream->data), media_types,
                                        properties);
        }
    }
    gst_discoverer_stream_info_list_free(streams);
}

/* Describes the top stream and either the one that follows it or the streams that it contains. */
bool parse_streams(GstDiscovererStreamInfo *top, json_t *media_types, json_t *properties)
{
    if (!parse_stream_or_log(top, media_types, properties)) {
        return false;
    }
    g_autoptr(GstDiscovererStreamInfo) next = gst_discoverer_stream_info_get_next(top);
    if (next) {
        return parse_stream_or_log(next, media_types, properties);
    }
    if (GST_IS_DISCOVERER_CONTAINER_INFO(top)) {
        parse_children(GST_DISCOVERER_CONTAINER_INFO(top), media_types, properties);
    }
    return true;
}

bool describe_streams(GstDiscovererStreamInfo *top, json_t *media_info)
{
    g_autoptr(json_t) media_types = json_array();
    g_autoptr(json_t) properties = json_object();
    if (!media_types) {
        g_info("%sFailed to create 'media_array'.", "");
        return false;
    }
    if (!properties) {
        g_info("%sFailed to create 'properties'.", "");
        return false;
    }
    if (!parse_streams(top, media_types, properties)) {
        return false;
    }
    if (json_object_set(media_info, "properties", properties) != 0) {
        log_error("%sFailed to add 'properties'.", "");
        return false;
    }
    if (json_object_set(media_info, "media_types", media_types) != 0) {
        log_error("%sFailed to add 'media_types'.", "");
        return false;
    }
    return true;
}

/* Takes the reference to `value`, which may be null: setting it then fails. */
void set_property(json_t *properties, const char *key, json_t *value)
{
    if (json_object_set_new(properties, key, value) != 0) {
        log_error("%sFailed to set property '%s'", "", key);
    }
}

void set_audio_properties(GstDiscovererAudioInfo *info, const GstCaps *caps, json_t *properties)
{
    g_autofree char *codec = gst_pb_utils_get_codec_description(caps);
    set_property(properties, "audio_codec", json_string(codec));
    set_property(properties, "bitrate", json_integer(gst_discoverer_audio_info_get_bitrate(info)));
    set_property(properties, "channels",
                 json_integer(gst_discoverer_audio_info_get_channels(info)));
    set_property(properties, "bits_per_sample",
                 json_integer(gst_discoverer_audio_info_get_depth(info)));
    set_property(properties, "sample_rate",
                 json_integer(gst_discoverer_audio_info_get_sample_rate(info)));
}

} // namespace

bool discover_media(const char *path, json_t *media_info)
{
    if (!path || access(path, F_OK) != 0 || !is_regular_file(path)) {
        return false;
    }
    if (!media_info) {
        g_info("%sNo JSON object specified.", "");
        return false;
    }
    if (json_object_size(media_info) != 0) {
        g_info("%sExpected empty JSON object.", "");
        return false;
    }

    g_autoptr(GstDiscovererInfo) info = probe(path);
    if (!info) {
        return false;
    }
    g_autoptr(GstDiscovererStreamInfo) top = gst_discoverer_info_get_stream_info(info);
    if (!top || json_object_set_new(media_info, "duration", duration_ms(info)) != 0) {
        return false;
    }
    if (!describe_streams(top, media_info)) {
        g_info("%sFailed to get the parse the discovered stream information.", "");
        return false;
    }
    return true;
}

bool discover_media_parse_stream(GstDiscovererStreamInfo *info, json_t *media_types,
                                 json_t *properties)
{
    g_autoptr(GstCaps) caps = gst_discoverer_stream_info_get_caps(info);
    if (!caps) {
        log_error("%sFailed to obtain caps.", "");
        return false;
    }
    for (guint i = 0; i < gst_caps_get_size(caps); i++) {
        const GstStructure *structure = gst_caps_get_structure(caps, i);
        if (!structure) {
            log_error("%sFailed to obtain the caps structure.", "");
            return false;
        }
        const char *name = gst_structure_get_name(structure);
        if (name && json_array_append_new(media_types, json_string(name)) != 0) {
            log_error("%sFailed to add media type: '%s'.", "", name);
            return false;
        }
    }
    if (GST_IS_DISCOVERER_AUDIO_INFO(info)) {
        set_audio_properties(GST_DISCOVERER_AUDIO_INFO(info), caps, properties);
    }
    return true;
}
