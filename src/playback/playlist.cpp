#include "playlist.h"

#include <cstring>
#include <gst/gst.h>

#include "discover_media_supported.h"
#include "file_utils.h"
#include "service_frame.h"

namespace
{

constexpr size_t FILE_SCHEME_LENGTH = sizeof("file://") - 1;

} // namespace

Playlist *playlist_new()
{
    return g_new0(Playlist, 1);
}

void playlist_clear(Playlist *playlist)
{
    if (playlist) {
        g_list_free_full(g_steal_pointer(&playlist->files), g_free);
    }
}

void playlist_free(Playlist *playlist)
{
    playlist_clear(playlist);
    g_free(playlist);
}

bool playlist_add(Playlist *playlist, const char *path)
{
    if (!playlist || !path || !discover_media_is_supported(path, nullptr)) {
        return false;
    }
    playlist->files = g_list_append(playlist->files, g_strdup(path));
    return true;
}

bool playlist_add_from_wildcard_path(Playlist *playlist, const char *path)
{
    if (!playlist || !path) {
        return false;
    }
    /* A literal name takes precedence, even if it contains wildcard characters. */
    if (playlist_add(playlist, path)) {
        return true;
    }
    bool added = false;
    GSList *files = file_utils_get_files_from_wildcard(path);
    for (GSList *file = files; file; file = file->next) {
        sonobrik_feed_watchdog(); /* a damaged file takes seconds */
        added |= playlist_add(playlist, static_cast<const char *>(file->data));
    }
    file_utils_free_list(&files);
    return added;
}

guint playlist_get_length(const Playlist *playlist)
{
    return playlist ? g_list_length(playlist->files) : 0;
}

const char *playlist_get_random_file(const Playlist *playlist, const char *avoid)
{
    const guint length = playlist_get_length(playlist);
    if (length == 0) {
        return nullptr;
    }
    const gint32 index = g_random_int_range(0, static_cast<gint32>(length));
    auto *path = static_cast<const char *>(g_list_nth_data(playlist->files, index));
    if (length == 1 || !avoid || g_strcmp0(path, avoid) != 0) {
        return path;
    }
    return static_cast<const char *>(g_list_nth_data(playlist->files, (index + 1) % length));
}

char *playlist_get_random_uri(const Playlist *playlist, const char *current_uri)
{
    if (!playlist) {
        return nullptr;
    }
    /*
     * The scheme is not checked, because the URI came from this function. The rest is compared
     * without decoding it, so a name that a URI escapes, such as one with a space, is not avoided.
     */
    const char *avoid =
        current_uri ? current_uri + strnlen(current_uri, FILE_SCHEME_LENGTH) : nullptr;
    const char *path = playlist_get_random_file(playlist, avoid);
    if (!path) {
        return nullptr;
    }
    g_autoptr(GError) error = nullptr;
    g_autofree char *uri = gst_filename_to_uri(path, &error);
    if (error) {
        g_warning("%sCould not create uri from file path '%s', error message '%s'.", "", path,
                  error->message);
        return nullptr;
    }
    return g_steal_pointer(&uri);
}
