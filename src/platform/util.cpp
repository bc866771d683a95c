#include "platform/util.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* The place of a file. */
struct Place {
    int folder;           /* descriptor of the file's folder, or -1 */
    char *name;           /* in the folder; owned */
    char *temporary_name; /* in the folder, used until the file is complete; owned */
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

/* Writes and syncs the temporary file. Removes it on failure. */
static bool write_temporary(const Place &place, const char *text, size_t length, mode_t mode)
{
    /* Removes a file that a crash left, or a link, which must not be followed. */
    unlinkat(place.folder, place.temporary_name, 0);
    const int fd = openat(place.folder, place.temporary_name,
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    /* The umask may have removed bits. */
    const bool written =
        fchmod(fd, mode) == 0 && write_all(fd, text, length) && sync_descriptor(fd);
    /* Some file systems report a full disk only here. An interrupted close has closed the file. */
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

/* EINVAL means that the file system cannot sync folders; there is nothing more to do then. */
static bool sync_folder(const Place &place)
{
    return sync_descriptor(place.folder) || errno == EINVAL;
}

int util_str_to_int(const char *text, int32_t *value)
{
    if (!text || !value) {
        return 0;
    }
    gint64 number = 0;
    if (!g_ascii_string_to_signed(text, 10, INT32_MIN, INT32_MAX, &number, nullptr)) {
        return 0;
    }
    *value = static_cast<int32_t>(number);
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
