#include "file_utils.h"

#include <cmath>
#include <cstdio>
#include <sys/stat.h>

namespace
{

constexpr double KIB_PER_BYTE = 1.0 / 1024;

/*
 * GLib matches characters of UTF-8: a name that is none would be read and written beyond its end.
 * Each of its stray bytes counts as one character.
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
    GSList *files = nullptr;
    while (const char *name = g_dir_read_name(dir)) {
        if (name_matches(pattern, name)) {
            files = g_slist_prepend(files, g_strjoin("/", dir_name, name, nullptr));
        }
    }
    /* Prepended and turned round once: appending one by one is quadratic in a large directory. */
    return g_slist_reverse(files);
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
    return static_cast<gint32>(lround(static_cast<double>(status.st_size) * KIB_PER_BYTE));
}
