#include "platform/util.h"

#include <charconv>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

/* Where a file lies: its folder, open, its name in there, and the name that it is written under. */
struct Place {
    int folder;
    char *name;
    char *temporary_name;
};

static void place_close(Place *place)
{
    if (place->folder >= 0) {
        close(place->folder);
    }
    g_free(place->name);
    g_free(place->temporary_name);
}
G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(Place, place_close)

static bool write_all(int fd, const char *text, size_t length)
{
    while (length > 0) {
        const ssize_t count = write(fd, text, length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        text += count;
        length -= static_cast<size_t>(count);
    }
    return true;
}

static bool sync_descriptor(int fd)
{
    int result;
    do {
        result = fsync(fd);
    } while (result < 0 && errno == EINTR);
    return result == 0;
}

/* Leaves the whole text on storage under the temporary name, or nothing. */
static bool write_temporary(const Place &place, const char *text, size_t length, mode_t mode)
{
    /* What a crash left behind; a link in its place goes too, instead of being followed. */
    unlinkat(place.folder, place.temporary_name, 0);
    const int fd = openat(place.folder, place.temporary_name,
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    const bool written = write_all(fd, text, length) && sync_descriptor(fd);
    /* Some file systems report only here that there was no room; an interrupted close is done. */
    const bool closed = close(fd) == 0 || errno == EINTR;
    if (!written || !closed) {
        unlinkat(place.folder, place.temporary_name, 0);
        return false;
    }
    return true;
}

static bool rename_temporary(const Place &place)
{
    if (renameat(place.folder, place.temporary_name, place.folder, place.name) == 0) {
        return true;
    }
    unlinkat(place.folder, place.temporary_name, 0);
    return false;
}

/* A file system that cannot sync a folder says EINVAL, and then keeps its own order of things. */
static bool sync_folder(const Place &place)
{
    return sync_descriptor(place.folder) || errno == EINVAL;
}

int util_str_to_int(const char *text, int32_t *value)
{
    if (!text || !value) {
        return 0;
    }
    std::string_view number = text;
    if (number.starts_with('+')) {
        number.remove_prefix(1);
        if (number.starts_with('-')) {
            return 0;
        }
    }
    int32_t result;
    const char *end = number.data() + number.size();
    const auto [stop, error] = std::from_chars(number.data(), end, result, 10);
    if (error != std::errc{} || stop != end) {
        return 0;
    }
    *value = result;
    return 1;
}

char *util_str_extract(const char *text, const char *prefix, const char *suffix)
{
    if (!text || !prefix || !suffix) {
        return nullptr;
    }
    const size_t around = strlen(prefix) + strlen(suffix);
    const size_t length = strlen(text);
    if (length < around || !g_str_has_prefix(text, prefix) || !g_str_has_suffix(text, suffix)) {
        return nullptr;
    }
    return g_strndup(text + strlen(prefix), length - around);
}

int util_write_file_synced(const char *path, const char *text, size_t length, mode_t mode)
{
    if (!path || !text || g_str_has_suffix(path, "/")) {
        return 0;
    }
    g_autofree char *folder = g_path_get_dirname(path);
    g_auto(Place) place = {
        .folder = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC),
        .name = g_path_get_basename(path),
        .temporary_name = nullptr,
    };
    if (place.folder < 0) {
        return 0;
    }
    place.temporary_name = g_strdup_printf(".%s.new", place.name);
    return write_temporary(place, text, length, mode) && rename_temporary(place) &&
           sync_folder(place);
}
