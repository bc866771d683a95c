#include "discover_media_test.h"

#include <cstdlib>
#include <dlfcn.h>
#include <utility>

#include "discover_media.h"

FakeDiscoverer fake;

namespace
{

void forget_object(gpointer, GObject *)
{
    fake.objects_alive--;
}

/* Makes an object that fake.objects_alive counts until it is finalised. */
GObject *watched_object(GType type)
{
    auto *object = static_cast<GObject *>(g_object_new(type, nullptr));
    if (g_object_is_floating(object)) {
        g_object_ref_sink(object);
    }
    g_object_weak_ref(object, forget_object, nullptr);
    fake.objects_alive++;
    return object;
}

FakeStream &stream_of(gpointer info)
{
    return fake.streams[static_cast<GstDiscovererStreamInfo *>(info)];
}

GstDiscovererStreamInfo *ref_stream(GstDiscovererStreamInfo *info)
{
    return info ? static_cast<GstDiscovererStreamInfo *>(g_object_ref(info)) : nullptr;
}

template <typename Function> Function *next_symbol(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

GstDiscovererStreamInfo *new_stream(GType type, const char *caps)
{
    auto *info = reinterpret_cast<GstDiscovererStreamInfo *>(watched_object(type));
    stream_of(info).caps = caps ? gst_caps_from_string(caps) : nullptr;
    return info;
}

} // namespace

/* The discoverer. */

GstDiscoverer *gst_discoverer_new(GstClockTime timeout, GError **error)
{
    fake.discoverers++;
    fake.timeout = timeout;
    if (fake.new_error) {
        g_set_error_literal(error, GST_CORE_ERROR, GST_CORE_ERROR_FAILED, fake.new_error->c_str());
        return nullptr;
    }
    return reinterpret_cast<GstDiscoverer *>(watched_object(GST_TYPE_DISCOVERER));
}

GstDiscovererInfo *gst_discoverer_discover_uri(GstDiscoverer *, const gchar *uri, GError **error)
{
    if (fake.before_discovery) {
        fake.before_discovery();
    }
    g_autofree char *filename = g_filename_from_uri(uri, nullptr, nullptr);
    fake.content = std::filesystem::is_directory(filename) ? "" : read_file(filename);
    if (fake.error_names_file) {
        g_set_error(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_READ,
                    "Could not open file \"%s\" for reading.", filename);
    } else if (fake.error) {
        g_set_error_literal(error, GST_CORE_ERROR, GST_CORE_ERROR_FAILED, fake.error->c_str());
    }
    return fake.has_info
               ? reinterpret_cast<GstDiscovererInfo *>(watched_object(GST_TYPE_DISCOVERER_INFO))
               : nullptr;
}

GstDiscovererResult gst_discoverer_info_get_result(const GstDiscovererInfo *)
{
    return static_cast<GstDiscovererResult>(fake.result);
}

GstDiscovererStreamInfo *gst_discoverer_info_get_stream_info(GstDiscovererInfo *)
{
    return ref_stream(fake.top);
}

GstClockTime gst_discoverer_info_get_duration(const GstDiscovererInfo *)
{
    return fake.duration;
}

const gchar **gst_discoverer_info_get_missing_elements_installer_details(const GstDiscovererInfo *)
{
    fake.missing_plugins_asked++;
    return fake.missing_plugins;
}

GstCaps *gst_discoverer_stream_info_get_caps(GstDiscovererStreamInfo *info)
{
    GstCaps *caps = stream_of(info).caps;
    return caps ? gst_caps_ref(caps) : nullptr;
}

GstDiscovererStreamInfo *gst_discoverer_stream_info_get_next(GstDiscovererStreamInfo *info)
{
    return ref_stream(stream_of(info).next);
}

GList *gst_discoverer_container_info_get_streams(GstDiscovererContainerInfo *info)
{
    GList *list = nullptr;
    for (GstDiscovererStreamInfo *child : stream_of(info).children) {
        list = g_list_append(list, ref_stream(child));
    }
    return list;
}

void gst_discoverer_stream_info_list_free(GList *infos)
{
    fake.lists_freed++;
    g_list_free_full(infos, g_object_unref);
}

guint gst_discoverer_audio_info_get_bitrate(const GstDiscovererAudioInfo *info)
{
    return stream_of(const_cast<GstDiscovererAudioInfo *>(info)).bitrate;
}

guint gst_discoverer_audio_info_get_channels(const GstDiscovererAudioInfo *info)
{
    return stream_of(const_cast<GstDiscovererAudioInfo *>(info)).channels;
}

guint gst_discoverer_audio_info_get_depth(const GstDiscovererAudioInfo *info)
{
    return stream_of(const_cast<GstDiscovererAudioInfo *>(info)).depth;
}

guint gst_discoverer_audio_info_get_sample_rate(const GstDiscovererAudioInfo *info)
{
    return stream_of(const_cast<GstDiscovererAudioInfo *>(info)).sample_rate;
}

gchar *gst_pb_utils_get_codec_description(const GstCaps *caps)
{
    g_autofree char *text = gst_caps_to_string(caps);
    fake.codecs_asked.emplace_back(text);
    return fake.codec ? g_strdup(fake.codec->c_str()) : nullptr;
}

/* Library functions that fail if a test asks for it. */

gchar *gst_filename_to_uri(const gchar *filename, GError **error)
{
    if (fake.uri_error) {
        g_set_error_literal(error, G_CONVERT_ERROR, G_CONVERT_ERROR_BAD_URI,
                            fake.uri_error->c_str());
        return nullptr;
    }
    static auto *real = next_symbol(&gst_filename_to_uri, "gst_filename_to_uri");
    return real(filename, error);
}

GstStructure *gst_caps_get_structure(const GstCaps *caps, guint index)
{
    static auto *real = next_symbol(&gst_caps_get_structure, "gst_caps_get_structure");
    return fake.caps_structure_fails ? nullptr : real(caps, index);
}

const gchar *gst_structure_get_name(const GstStructure *structure)
{
    static auto *real = next_symbol(&gst_structure_get_name, "gst_structure_get_name");
    return fake.structure_name ? *fake.structure_name : real(structure);
}

json_t *json_array()
{
    static auto *real = next_symbol(&json_array, "json_array");
    return fake.json_array_fails ? nullptr : real();
}

json_t *json_object()
{
    static auto *real = next_symbol(&json_object, "json_object");
    return fake.json_object_fails ? nullptr : real();
}

int json_object_set_new(json_t *object, const char *key, json_t *value)
{
    if (fake.key_that_fails == key) {
        json_decref(value);
        return -1;
    }
    static auto *real = next_symbol(&json_object_set_new, "json_object_set_new");
    return real(object, key, value);
}

/* The fixture. */

void DiscoverMedia::SetUpTestSuite()
{
    gst_init(nullptr, nullptr);
}

DiscoverMedia::DiscoverMedia()
{
    fake = FakeDiscoverer();
    media_info = json_object();
    path = dir.file("clip.wav", "content of the clip");
}

void DiscoverMedia::TearDown()
{
    EXPECT_EQ(media_info->refcount, 1u);
    json_decref(media_info);
    for (auto &[info, stream] : fake.streams) {
        if (stream.caps) {
            EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(stream.caps), 1);
            gst_caps_unref(stream.caps);
        }
        g_object_unref(info);
    }
    EXPECT_EQ(fake.objects_alive, 0) << "an object was not released";
    LogTest::TearDown();
}

GstDiscovererStreamInfo *DiscoverMedia::audio(const char *caps, guint base)
{
    GstDiscovererStreamInfo *info = new_stream(GST_TYPE_DISCOVERER_AUDIO_INFO, caps);
    FakeStream &fields = stream_of(info);
    fields.bitrate = base;
    fields.channels = base + 1;
    fields.depth = base + 2;
    fields.sample_rate = base + 3;
    return info;
}

GstDiscovererStreamInfo *DiscoverMedia::video(const char *caps)
{
    return new_stream(GST_TYPE_DISCOVERER_VIDEO_INFO, caps);
}

GstDiscovererStreamInfo *DiscoverMedia::other(const char *caps)
{
    return new_stream(GST_TYPE_DISCOVERER_STREAM_INFO, caps);
}

GstDiscovererStreamInfo *DiscoverMedia::container(const char *caps,
                                                  std::vector<GstDiscovererStreamInfo *> children)
{
    GstDiscovererStreamInfo *info = new_stream(GST_TYPE_DISCOVERER_CONTAINER_INFO, caps);
    stream_of(info).children = std::move(children);
    return info;
}

void DiscoverMedia::set_next(GstDiscovererStreamInfo *info, GstDiscovererStreamInfo *next)
{
    stream_of(info).next = next;
}

std::string DiscoverMedia::text(const json_t *value)
{
    char *dump = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string result = dump ? dump : "(null)";
    free(dump);
    return result;
}

std::string DiscoverMedia::media_types() const
{
    return text(json_object_get(media_info, "media_types"));
}

std::string DiscoverMedia::properties() const
{
    return text(json_object_get(media_info, "properties"));
}

bool DiscoverMedia::discover()
{
    return discover_media(path.c_str(), media_info);
}
