#include "discover_media.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "autoptr.h"
#include "file_utils.h"
#include "log_level.h"
#include "source_uri.h"

namespace
{

constexpr GstClockTime DISCOVERER_TIMEOUT = 5 * GST_SECOND;

/*
 * The discoverer opens three, more if it has to load a plugin. Without those of its bus it does not
 * fail: it uses a whole processor until its time-out, and logs thousands of lines.
 */
constexpr unsigned DISCOVERER_DESCRIPTORS = 8;

/* Replaces `name` by `path` in the error's message, so that the log names the clip's file. */
void put_path_into_message(GError *error, const char *name, const char *path)
{
    GString *message = g_string_new(error->message);
    g_string_replace(message, name, path, 0);
    g_free(error->message);
    error->message = g_string_free(message, FALSE);
}

void on_source_setup(GstDiscoverer *, GstElement *source, gpointer path)
{
    g_autofree char *uri = gst_filename_to_uri(static_cast<const char *>(path), nullptr);
    if (uri) {
        source_uri_set(source, uri);
    }
}

/*
 * Runs the discoverer on the open file `fd`, which is -1 for a file that may not be read. `path`
 * names it in log lines, and its suffix hints at the format. Returns a new reference to the result,
 * or null with a log line.
 */
GstDiscovererInfo *probe(int fd, const char *path)
{
    g_autoptr(GError) error = nullptr;
    g_autofree char *fd_name =
        fd == -1 ? g_strdup(FILE_UTILS_UNREADABLE_PATH) : g_strdup_printf("/proc/self/fd/%d", fd);
    g_autofree char *uri = gst_filename_to_uri(fd_name, &error);
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
    g_signal_connect(discoverer, "source-setup", G_CALLBACK(on_source_setup),
                     const_cast<char *>(path));
    g_autoptr(GstDiscovererInfo) info = gst_discoverer_discover_uri(discoverer, uri, &error);
    if (!info) {
        /* The message says 'uri', but its argument is the error's text. */
        g_warning("%sError discovering uri '%s'.", "", error ? error->message : "");
        return nullptr;
    }

    if (error) {
        put_path_into_message(error, fd_name, path);
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
        /* Fetched but not used: the daemon has no plugin installer to pass the details to. */
        gst_discoverer_info_get_missing_elements_installer_details(info);
        return nullptr;
    default:
        g_info("%sUnexpected result when discovering '%s', (code: %d).", "", path, result);
        return nullptr;
    }
}

/*
 * Returns the duration in milliseconds. The cast turns an unknown duration (GST_CLOCK_TIME_NONE,
 * 18446744073709 ms) into -140462611, and the store refuses metadata with a negative duration.
 * Without the cast, the store would accept it.
 */
gint32 get_duration_ms(const GstDiscovererInfo *info)
{
    return static_cast<gint32>(gst_discoverer_info_get_duration(info) / GST_MSECOND);
}

bool parse_stream_or_log(GstDiscovererStreamInfo *info, json_t *media_types, json_t *properties)
{
    if (!discover_media_parse_stream(info, media_types, properties)) {
        log_error("%sFailed to parse stream properties.", "");
        return false;
    }
    return true;
}

/*
 * Describes the containers and audio streams in `container`. Ignores failures: one stream that
 * cannot be described does not make the file unusable.
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

/* Describes the top stream and then the stream after it or, if there is none, those inside it. */
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

/* Takes the reference to `value`. Logs a failure; a null `value` counts as one. */
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

/* Closes what open_for_probe() opened. */
void close_probe(int fd)
{
    if (fd != -1) {
        close(fd);
    }
}

/*
 * Opens the file for the discoverer. Returns true with `*fd` set, to -1 for a file that may not be
 * read: the discoverer then logs the reason, as it does for a directory. Returns false with errno
 * set if the discoverer could block: ENXIO for a FIFO, socket or device, EAGAIN for a file on which
 * another process has a write lease.
 */
bool open_for_probe(const char *path, int *fd)
{
    *fd = file_utils_open_regular(path, O_PATH);
    if (*fd != -1) {
        *fd = file_utils_reopen_for_reading(*fd);
    } else if (errno == EISDIR) {
        *fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    if (*fd == -1 && errno != EACCES) {
        return false;
    }
    if (!file_utils_can_open(DISCOVERER_DESCRIPTORS)) {
        const int error = errno;
        close_probe(*fd);
        errno = error;
        return false;
    }
    return true;
}

/* Fills `media_info` from the open file `fd`, which is -1 for a file that may not be read. */
bool describe_file(int fd, const char *path, json_t *media_info)
{
    g_autoptr(GstDiscovererInfo) info = probe(fd, path);
    if (!info) {
        return false;
    }
    g_autoptr(GstDiscovererStreamInfo) top = gst_discoverer_info_get_stream_info(info);
    if (!top) {
        return false;
    }
    json_t *duration = json_integer(get_duration_ms(info));
    if (json_object_set_new(media_info, "duration", duration) != 0) {
        return false;
    }
    if (!describe_streams(top, media_info)) {
        g_info("%sFailed to get the parse the discovered stream information.", "");
        return false;
    }
    return true;
}

} // namespace

bool discover_media(const char *path, json_t *media_info)
{
    if (!path || access(path, F_OK) != 0) {
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
    int fd = -1;
    if (!open_for_probe(path, &fd)) {
        if (errno != ENXIO) {
            g_warning("%sCould not open '%s': %s", "", path, g_strerror(errno));
        }
        return false;
    }
    const bool success = describe_file(fd, path, media_info);
    close_probe(fd);
    return success;
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
