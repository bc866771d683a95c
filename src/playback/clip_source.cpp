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
    const int fd = file_utils_open_regular(path, O_PATH);
    if (fd == -1) {
        g_object_set(source, "location", MISSING_PATH, nullptr);
        return;
    }
    g_autofree char *pinned_path = g_strdup_printf("/proc/self/fd/%d", fd);
    g_object_set(source, "location", pinned_path, nullptr);
    source_uri_set(source, uri);
    /* The source opens the path later, so the descriptor lives as long as the source. */
    g_object_set_data_full(G_OBJECT(source), "pinned-file", GINT_TO_POINTER(fd), close_descriptor);
}
