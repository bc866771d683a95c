#include "file_utils.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr double KIB_PER_BYTE = 1.0 / 1024;

/*
 * Returns true if `name` matches. GLib's matching expects UTF-8 and reads beyond the end of a
 * name that is not valid UTF-8, so each invalid byte is replaced by one character first.
 */
bool name_matches(GPatternSpec *pattern, const char *name)
{
    g_autofree char *text = g_utf8_make_valid(name, -1);
    return g_pattern_spec_match_string(pattern, text);
}

} // namespace

GSList *file_utils_get_files_from_wildcard(const char *path_pattern)
{
    if (!path_pattern) {
        return nullptr;
    }
    g_autofree char *dir_name = g_path_get_dirname(path_pattern);
    g_autofree char *name_pattern = g_path_get_basename(path_pattern);

    g_autoptr(GDir) dir = g_dir_open(dir_name, 0, nullptr);
    if (!dir) {
        g_info("%sThe specified directory of '%s' does not exist", "", path_pattern);
        return nullptr;
    }

    g_autofree char *pattern_text = g_utf8_make_valid(name_pattern, -1);
    g_autoptr(GPatternSpec) pattern = g_pattern_spec_new(pattern_text);
    g_autoptr(GPtrArray) paths = g_ptr_array_new();
    while (const char *name = g_dir_read_name(dir)) {
        if (name_matches(pattern, name)) {
            g_ptr_array_add(paths, g_strjoin("/", dir_name, name, nullptr));
        }
    }
    return file_utils_make_list(paths);
}

GSList *file_utils_make_list(GPtrArray *items)
{
    if (!items) {
        return nullptr;
    }
    GSList *list = nullptr;
    for (guint i = items->len; i > 0; i--) {
        list = g_slist_prepend(list, items->pdata[i - 1]);
    }
    return list;
}

void file_utils_free_list(GSList **list)
{
    if (list && *list) {
        g_slist_free_full(g_steal_pointer(list), g_free);
    }
}

bool file_utils_file_exist(const char *path)
{
    return path && g_file_test(path, G_FILE_TEST_EXISTS);
}

int file_utils_open_regular(const char *path, int access_mode)
{
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    const int fd = open(path, access_mode | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd == -1) {
        return -1;
    }
    struct stat status;
    int error = 0;
    if (fstat(fd, &status) != 0) {
        error = errno;
    } else if (!S_ISREG(status.st_mode)) {
        error = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
    }
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

int file_utils_reopen_for_reading(int fd)
{
    g_autofree char *path = g_strdup_printf("/proc/self/fd/%d", fd);
    const int file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    const int error = errno;
    close(fd);
    errno = error;
    return file;
}

bool file_utils_can_open(unsigned count)
{
    g_autofree int *descriptors = g_new(int, count);
    unsigned opened = 0;
    while (opened < count && (descriptors[opened] = open("/", O_PATH | O_CLOEXEC)) != -1) {
        opened++;
    }
    const int error = errno;
    for (unsigned i = 0; i < opened; i++) {
        close(descriptors[i]);
    }
    errno = error;
    return opened == count;
}

bool file_utils_remove_file(const char *path)
{
    if (!file_utils_file_exist(path)) {
        return true;
    }
    return remove(path) == 0;
}

gint32 file_utils_get_file_size_kb(const char *path)
{
    struct stat status;
    if (!path || stat(path, &status) != 0) {
        return -1;
    }
    /* Not lround(): a long has only 32 bits on some machines and cannot hold a larger number. */
    return static_cast<gint32>(llround(static_cast<double>(status.st_size) * KIB_PER_BYTE));
}
