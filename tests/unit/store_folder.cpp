#include "store_folder.h"

#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/fsuid.h>
#include <unistd.h>

#include "group_conf_directory.h"

namespace
{

constexpr const char *DIRECTORY = "clip_data";

std::string path_of(const std::string &name)
{
    return std::string(DIRECTORY) + "/" + name;
}

} // namespace

StoreFolder::StoreFolder()
{
    sonobrik_group_conf_reset(DIRECTORY);
    fake_platform = {};
    fake_platform.parameter = "10";
    std::filesystem::create_directory(DIRECTORY);
}

void StoreFolder::write(const std::string &name, const std::string &text)
{
    write_file(path_of(name), text);
}

std::string StoreFolder::read(const std::string &name)
{
    std::ifstream file(path_of(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> StoreFolder::names()
{
    std::vector<std::string> found;
    DIR *folder = opendir(DIRECTORY);
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] == 'M') {
            found.emplace_back(entry->d_name);
        }
    }
    closedir(folder);
    return found;
}

std::string record_file(const std::string &location, const std::string &name,
                        const std::string &type, const std::string &metadata)
{
    return "{\n"
           "  \"location\": \"" +
           location +
           "\",\n"
           "  \"name\": \"" +
           name +
           "\",\n"
           "  \"type\": \"" +
           type +
           "\",\n"
           "  \"metadata\": " +
           metadata + "\n}";
}

SonobrikGroup *new_record(int index, const char *location, const char *name, const char *type,
                          json_t *metadata)
{
    auto *group = g_new0(SonobrikGroup, 1);
    group->index = index;
    group->location = g_strdup(location);
    group->name = g_strdup(name);
    group->type = g_strdup(type);
    group->metadata = metadata;
    return group;
}

std::string compact(const json_t *value)
{
    if (!value) {
        return "null pointer";
    }
    char *text = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string copy = text ? text : "no text";
    free(text);
    return copy;
}

UnprivilegedFileAccess::UnprivilegedFileAccess()
{
    setfsuid(geteuid() == 0 ? 65534 : geteuid());
}

UnprivilegedFileAccess::~UnprivilegedFileAccess()
{
    setfsuid(geteuid());
}
