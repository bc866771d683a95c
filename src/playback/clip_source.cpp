#include "clip_source.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "file_utils.h"
#include "source_uri.h"

namespace
{

/* Never exists, so a source that is to fail reports "Resource not found." */
constexpr char MISSING_PATH[] = "/proc/self/fd/none";

/* The key of the path that a pinned source was given. */
constexpr char GIVEN_PATH[] = "given-path";

void close_descriptor(gpointer descriptor)
{
    close(GPOINTER_TO_INT(descriptor));
}

} // namespace

bool clip_source_is_playable(const char *uri)
{
    g_autofree char *path = gst_uri_get_location(uri);
    const int fd = file_utils_open_regular(path, O_PATH);
    if (fd == -1) {
        return errno != EISDIR && errno != ENXIO;
    }
    close(fd);
    return true;
}

void clip_source_pin(GstElement *source)
{
    GstElementFactory *factory = gst_element_get_factory(source);
    if (!factory || g_strcmp0(GST_OBJECT_NAME(factory), "filesrc") != 0) {
        return;
    }
    g_autofree char *path = nullptr;
    g_object_get(source, "location", &path, nullptr);
    g_autofree char *uri = gst_uri_handler_get_uri(GST_URI_HANDLER(source));
    g_object_set_data_full(G_OBJECT(source), GIVEN_PATH, g_strdup(path), g_free);
    const int named = file_utils_open_regular(path, O_PATH);
    if (named == -1) {
        g_object_set(source, "location", MISSING_PATH, nullptr);
        return;
    }
    const int fd = file_utils_reopen_for_reading(named);
    if (fd == -1) {
        g_object_set(source, "location", FILE_UTILS_UNREADABLE_PATH, nullptr);
        return;
    }
    g_autofree char *pinned_path = g_strdup_printf("/proc/self/fd/%d", fd);
    g_object_set(source, "location", pinned_path, nullptr);
    source_uri_set(source, uri);
    /*
     * The source opens the path later. It must not wait for a write lease then, so the descriptor,
     * which prevents leases, lives as long as the source.
     */
    g_object_set_data_full(G_OBJECT(source), "pinned-file", GINT_TO_POINTER(fd), close_descriptor);
}

char *clip_source_describe_error(GstObject *element, const char *text)
{
    const auto *given_path =
        element ? static_cast<const char *>(g_object_get_data(G_OBJECT(element), GIVEN_PATH))
                : nullptr;
    if (!given_path) {
        return g_strdup(text);
    }
    g_autofree char *path = nullptr;
    g_object_get(element, "location", &path, nullptr);
    GString *description = g_string_new(text);
    g_string_replace(description, path, given_path, 0);
    return g_string_free(description, FALSE);
}
