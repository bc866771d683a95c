#include "sonobrik_group.h"

#include <algorithm>

#include "file_utils.h"
#include "memory_trim.h"
#include "service_frame.h"
#include "sonobrik_group_conf.h"

namespace
{

/* A record takes about 2 KiB while a request handles it. */
constexpr guint LARGE_LIST = 500;

bool index_is_taken(gint32 index)
{
    g_autofree char *path = sonobrik_group_conf_get_file_path(index);
    return file_utils_file_exist(path);
}

/*
 * Returns the lowest free index. If all below the highest valid index are taken, returns the
 * highest without checking it: the caller's warning about a full store names that index. Returns -1
 * while the bound is unknown.
 */
gint32 find_free_index()
{
    gint32 max_index = 0;
    if (!sonobrik_group_conf_get_max_group_index(&max_index)) {
        return -1;
    }
    gint32 index = 0;
    if (max_index > 0) {
        index = std::min(sonobrik_group_conf_count_files_without_gap(), max_index);
    }
    while (index < max_index && index_is_taken(index)) {
        index++;
    }
    return index;
}

} // namespace

bool sonobrik_group_create_group(gint32 *index, const char *location, const char *name,
                                 const char *type)
{
    if (!index) {
        g_warning("%s%s was called with an invalid argument", "", "sonobrik_group_create_group");
        return false;
    }
    const gint32 n = *index == -1 ? find_free_index() : *index;
    if (!sonobrik_group_conf_valid_group_index(n)) {
        g_warning("%s%s invalid index or no more indexes available", "",
                  "sonobrik_group_create_group");
        return false;
    }
    if (index_is_taken(n)) {
        g_warning("%s%s a group with index %d already exists", "", "sonobrik_group_create_group",
                  n);
        return false;
    }

    g_autoptr(SonobrikGroup) group = g_new0(SonobrikGroup, 1);
    group->index = n;
    sonobrik_group_set_location(group, location ? location : "");
    sonobrik_group_set_name(group, name ? name : "");
    sonobrik_group_set_type(group, type ? type : "");
    if (!sonobrik_group_save(group)) {
        g_warning("%s%s Failed to save the new parameter group", "", "sonobrik_group_create_group");
        return false;
    }
    *index = n;
    return true;
}

bool sonobrik_group_remove_group(gint32 index)
{
    g_autofree char *path = sonobrik_group_conf_get_file_path(index);
    if (!path) {
        return false;
    }
    if (!file_utils_file_exist(path)) {
        g_info("%s%s file '%s' does not exit", "", "sonobrik_group_remove_group", path);
        return false;
    }
    if (!file_utils_remove_file(path)) {
        g_info("%s%s failed to remove file '%s'", "", "sonobrik_group_remove_group", path);
        return false;
    }
    return true;
}

SonobrikGroup *sonobrik_group_from_index(gint32 index)
{
    g_autofree char *path = sonobrik_group_conf_get_file_path(index);
    return file_utils_file_exist(path) ? sonobrik_group_from_file(path) : nullptr;
}

GSList *sonobrik_group_get_parameter_list()
{
    g_autoptr(GPtrArray) groups = g_ptr_array_new();
    GSList *paths = sonobrik_group_conf_get_param_file_list();
    for (GSList *path = paths; path; path = path->next) {
        sonobrik_feed_watchdog(); /* 10,000 large files take longer than its interval */
        auto *file = static_cast<const char *>(path->data);
        g_autoptr(SonobrikGroup) group = sonobrik_group_from_file(file);
        if (!group) {
            g_warning("%s%s failed to create parameter from file %s", "",
                      "sonobrik_group_get_parameter_list", file);
            continue;
        }
        const char *fault = sonobrik_group_get_fault(group);
        if (fault) {
            /* One such record could make every reply and document with all records fail. */
            g_warning("%sLeft out '%s', which %s", "", file, fault);
            continue;
        }
        g_ptr_array_add(groups, g_steal_pointer(&group));
    }
    sonobrik_group_conf_free_param_file_list(&paths);
    return file_utils_make_list(groups);
}

void sonobrik_group_release_parameter_list(GSList **list)
{
    if (list && *list) {
        if (g_slist_nth(*list, LARGE_LIST - 1)) {
            memory_trim_later();
        }
        g_slist_free_full(g_steal_pointer(list), [](gpointer group) {
            sonobrik_group_free(static_cast<SonobrikGroup *>(group));
        });
    }
}
