#include "sonobrik_group_conf.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <string>
#include <vector>

#include "file_utils.h"
#include "group_conf_directory.h"
#include "parameter.h"
#include "platform/util.h"

namespace
{

constexpr const char *MAX_GROUPS_PARAMETER = "root.SonoBrik.MaxGroups";

constexpr gint32 NOT_KNOWN = -1;

const char *group_directory = SONOBRIK_GROUP_DIRECTORY;

/*
 * The highest valid index, once it is known. A parameter of 0 gives -1, which looks unknown: the
 * parameter is then read on every call, and no index is valid.
 */
gint32 max_group_index = NOT_KNOWN;

char *build_path(gint32 index)
{
    return g_strdup_printf("%s/M%d.json", group_directory, index);
}

/* Returns true if the number `text` is written as "%d" writes it: without "+" or leading zeros. */
bool is_canonical(const char *text)
{
    const char *digits = *text == '-' ? text + 1 : text;
    return (*digits >= '1' && *digits <= '9') || strcmp(text, "0") == 0;
}

/* Parses the middle of the name of a record's file. Returns false if it is not an index. */
bool parse_index(const char *text, gint32 *index)
{
    /* A record with the index of "M007.json" would be saved to "M7.json", another clip's file. */
    return util_str_to_int(text, index) && is_canonical(text);
}

/* Returns the index of the folder's entry, or -1 if it is not certainly the file of a record. */
gint32 get_entry_index(const dirent &entry)
{
    g_autofree char *text = util_str_extract(entry.d_name, "M", ".json");
    gint32 index = -1;
    /* The target of a link may be missing. */
    const bool exists = entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN;
    return exists && parse_index(text, &index) ? index : -1;
}

/* Reads the parameter and caches the highest valid index. Returns false if it cannot be read. */
bool read_max_group_index()
{
    g_autofree char *text = get_parameter(MAX_GROUPS_PARAMETER);
    gint32 count = 0;
    if (!text || !util_str_to_int(text, &count)) {
        return false;
    }
    max_group_index = count > G_MININT32 ? count - 1 : count;
    return true;
}

} // namespace

bool sonobrik_group_conf_get_max_group_index(gint32 *max_index)
{
    if (!max_index || (max_group_index == NOT_KNOWN && !read_max_group_index())) {
        g_warning("%s%s can not determine the value of '%s'", "",
                  "sonobrik_group_conf_get_max_group_index", MAX_GROUPS_PARAMETER);
        return false;
    }
    *max_index = max_group_index;
    return true;
}

bool sonobrik_group_conf_valid_group_index(gint32 index)
{
    gint32 max_index = 0;
    return sonobrik_group_conf_get_max_group_index(&max_index) && index >= 0 && index <= max_index;
}

char *sonobrik_group_conf_get_file_path(gint32 index)
{
    if (!sonobrik_group_conf_valid_group_index(index)) {
        g_warning("%s%s invalid index '%d'", "", "sonobrik_group_conf_get_file_path", index);
        return nullptr;
    }
    return build_path(index);
}

gint32 sonobrik_group_conf_get_param_index(const char *path)
{
    gint32 index = -1;
    const std::string prefix = std::string(group_directory) + "/M";
    g_autofree char *text = util_str_extract(path, prefix.c_str(), ".json");
    if (parse_index(text, &index)) {
        return index;
    }
    g_warning("%sCould not obtain parameter index from '%s'", "", text);
    return -1;
}

gint32 sonobrik_group_conf_count_files_without_gap()
{
    DIR *folder = opendir(group_directory);
    if (!folder) {
        return 0;
    }
    std::vector<gint32> indexes;
    // cppcheck-suppress readdirCalled ; only the main thread reads this folder
    while (const dirent *entry = readdir(folder)) {
        indexes.push_back(get_entry_index(*entry));
    }
    closedir(folder);

    std::ranges::sort(indexes);
    gint32 count = 0;
    for (const gint32 index : indexes) {
        count += index == count ? 1 : 0;
    }
    return count;
}

GSList *sonobrik_group_conf_get_param_file_list()
{
    const std::string pattern = std::string(group_directory) + "/M*.json";
    return file_utils_get_files_from_wildcard(pattern.c_str());
}

void sonobrik_group_conf_free_param_file_list(GSList **list)
{
    file_utils_free_list(list);
}

void sonobrik_group_conf_reset(const char *directory)
{
    group_directory = directory;
    max_group_index = NOT_KNOWN;
}
