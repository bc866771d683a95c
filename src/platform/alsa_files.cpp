#include "alsa_files.h"

#include <alsa/asoundlib.h>
#include <errno.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <string_view>
#include <sys/stat.h>
#include <vector>

static void add_path(AlsaFiles *files, const std::string &path);

static AlsaFileStamp look_at(const std::string &path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        AlsaFileStamp missing = {};
        missing.error = errno;
        return missing;
    }
    return {
        .error = 0,
        .device = status.st_dev,
        .inode = status.st_ino,
        .mode = status.st_mode,
        .size = status.st_size,
        .modified = status.st_mtim,
        .changed = status.st_ctim,
    };
}

static bool same_time(const struct timespec &a, const struct timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

static bool same_stamp(const AlsaFileStamp &a, const AlsaFileStamp &b)
{
    return a.error == b.error && a.device == b.device && a.inode == b.inode && a.mode == b.mode &&
           a.size == b.size && same_time(a.modified, b.modified) && same_time(a.changed, b.changed);
}

static std::string top_level_files()
{
    const char *configured = getenv("ALSA_CONFIG_PATH");
    return configured ? configured : std::string(snd_config_topdir()) + "/alsa.conf";
}

/* Adds a path as the configuration has it, which may begin with "~". */
static void add_configured_path(AlsaFiles *files, const std::string &path)
{
    char *full_path = nullptr;
    if (snd_user_file(path.c_str(), &full_path) >= 0) {
        add_path(files, full_path);
        free(full_path);
    }
}

/* Adds the pieces of `text` between separators. */
static void add_path_list(AlsaFiles *files, const char *text, const char *separator)
{
    g_auto(GStrv) paths = g_strsplit(text, separator, -1);
    for (char **path = paths; *path; ++path) {
        if (**path != '\0') {
            add_configured_path(files, *path);
        }
    }
}

/* Adds what the array `list` of a hook names; an entry may be a choice, "first|||second". */
static void add_hook_files(AlsaFiles *files, snd_config_t *list)
{
    snd_config_iterator_t position;
    snd_config_iterator_t next;
    snd_config_for_each(position, next, list)
    {
        const char *text = nullptr;
        if (snd_config_get_string(snd_config_iterator_entry(position), &text) >= 0 && text) {
            add_path_list(files, text, "|||");
        }
    }
}

static bool is_compound(const snd_config_t *node)
{
    return snd_config_get_type(node) == SND_CONFIG_TYPE_COMPOUND;
}

/*
 * Adds the files of one entry of "@hooks". Names may be made up of functions (the home folder, an
 * environment variable), which alsa-lib works out. Those that need a sound card's number fail: the
 * files of one card define that card and none of the names that are listed.
 */
static void add_hook(AlsaFiles *files, snd_config_t *hook, snd_config_t *root)
{
    snd_config_t *evaluated = nullptr;
    if (!is_compound(hook) || snd_config_expand(hook, root, nullptr, nullptr, &evaluated) < 0) {
        return;
    }
    snd_config_t *list = nullptr;
    if (snd_config_search(evaluated, "files", &list) >= 0 && is_compound(list)) {
        add_hook_files(files, list);
    }
    snd_config_delete(evaluated);
}

/*
 * Takes the hooks out of the tree below `node`. They are evaluated after that: to look up a
 * function in a tree would run the hooks that it still has.
 */
static void take_hooks(snd_config_t *node, std::vector<snd_config_t *> *hooks)
{
    snd_config_iterator_t position;
    snd_config_iterator_t next;
    snd_config_for_each(position, next, node)
    {
        snd_config_t *entry = snd_config_iterator_entry(position);
        const char *id = nullptr;
        if (!is_compound(entry)) {
            continue;
        }
        if (snd_config_get_id(entry, &id) >= 0 && id && strcmp(id, "@hooks") == 0) {
            snd_config_remove(entry);
            hooks->push_back(entry);
        } else {
            take_hooks(entry, hooks);
        }
    }
}

/* Adds the files that the hooks of the tree `root` name. */
static void add_hooks(AlsaFiles *files, snd_config_t *root)
{
    std::vector<snd_config_t *> hooks;
    take_hooks(root, &hooks);
    for (snd_config_t *list : hooks) {
        snd_config_iterator_t position;
        snd_config_iterator_t next;
        snd_config_for_each(position, next, list)
        {
            add_hook(files, snd_config_iterator_entry(position), root);
        }
        snd_config_delete(list);
    }
}

/*
 * Adds what stands between "<" and ">", alsa-lib's directive of inclusion. Read from the text,
 * since a file that does not parse may do so because of what it includes.
 */
static void add_includes(AlsaFiles *files, std::string_view text)
{
    size_t start = 0;
    while ((start = text.find('<', start)) != std::string_view::npos) {
        const size_t end = text.find_first_of(">\n", ++start);
        if (end == std::string_view::npos) {
            return;
        }
        std::string name(text.substr(start, end - start));
        start = end;
        if (text[end] != '>' || name.empty()) {
            continue;
        }
        if (name.starts_with("confdir:")) {
            name.erase(0, strlen("confdir:"));
        }
        if (!name.starts_with('/')) {
            name = std::string(snd_config_topdir()) + '/' + name;
        }
        add_path(files, name);
    }
}

/* Adds what the file `path` refers to. */
static void add_references(AlsaFiles *files, const std::string &path)
{
    g_autofree char *text = nullptr;
    gsize length;
    /* alsa-lib takes a length of zero for "up to the NUL". */
    if (!g_file_get_contents(path.c_str(), &text, &length, nullptr) || length == 0) {
        return;
    }
    add_includes(files, {text, length});
    /* Loaded by itself, without an update around it, a file keeps its hooks as plain entries. */
    snd_config_t *root = nullptr;
    if (snd_config_load_string(&root, text, length) >= 0) {
        add_hooks(files, root);
        snd_config_delete(root);
    }
}

/* Adds the file `path` unless it is known, which also ends circles of references. */
static void add_file(AlsaFiles *files, const std::string &path)
{
    const auto [entry, is_new] = files->stamps.emplace(path, look_at(path));
    if (is_new && S_ISREG(entry->second.mode)) {
        add_references(files, path);
    }
}

/* Adds a file, or a folder with its members, as a hook may name either. */
static void add_path(AlsaFiles *files, const std::string &path)
{
    add_file(files, path);
    if (!S_ISDIR(files->stamps[path].mode)) {
        return;
    }
    g_autoptr(GDir) folder = g_dir_open(path.c_str(), 0, nullptr);
    const char *name;
    while (folder && (name = g_dir_read_name(folder))) {
        if (g_str_has_suffix(name, ".conf")) {
            add_file(files, path + '/' + name);
        }
    }
}

AlsaFiles alsa_files_find()
{
    AlsaFiles files;
    files.top_level = top_level_files();
    g_autofree char *paths = g_strdelimit(g_strdup(files.top_level.c_str()), " ", ':');
    add_path_list(&files, paths, ":");
    return files;
}

bool alsa_files_changed(const AlsaFiles &files)
{
    if (files.top_level != top_level_files()) {
        return true;
    }
    for (const auto &[path, stamp] : files.stamps) {
        if (!same_stamp(stamp, look_at(path))) {
            return true;
        }
    }
    return false;
}
