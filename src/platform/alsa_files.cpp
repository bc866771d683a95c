#include "alsa_files.h"

#include <alsa/asoundlib.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <string_view>
#include <sys/stat.h>
#include <vector>

static void add_path(AlsaFiles *files, const std::string &path);

static std::string top_level_files()
{
    const char *configured = getenv("ALSA_CONFIG_PATH");
    return configured ? configured : std::string(snd_config_topdir()) + "/alsa.conf";
}

/* Adds a path as it is written in the configuration; it may begin with "~". */
static void add_configured_path(AlsaFiles *files, const std::string &path)
{
    char *full_path = nullptr;
    if (snd_user_file(path.c_str(), &full_path) >= 0) {
        add_path(files, full_path);
        free(full_path);
    }
}

/* Adds each path of the list `text`. */
static void add_path_list(AlsaFiles *files, const char *text, const char *separator)
{
    g_auto(GStrv) paths = g_strsplit(text, separator, -1);
    for (char **path = paths; *path; ++path) {
        if (**path != '\0') {
            add_configured_path(files, *path);
        }
    }
}

/* Adds the paths in the array `list` of a hook. An entry may list alternatives, "first|||second".
 */
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
 * Adds the files of one entry of "@hooks". alsa-lib evaluates functions in the names, such as the
 * home folder or an environment variable. Names that need the number of a sound card fail. They can
 * be ignored: the files of one card define that card, and no PCM that this platform lists.
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
 * Moves the hooks of the tree below `node` to `hooks`. They must leave the tree before they are
 * evaluated, because evaluating a function searches the tree and runs the hooks that are still in
 * it.
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

/* Adds the files that the hooks of the tree `root` load. */
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
 * Adds the files between "<" and ">", which alsa-lib includes. Searches the text and not the parsed
 * tree, because an error in an included file makes the parsing fail.
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
            name.insert(0, std::string(snd_config_topdir()) + '/');
        }
        add_path(files, name);
    }
}

/*
 * Returns true if the text may define hooks. Most files define none, and parsing them took half of
 * the time of a search. An escape may stand for a letter of the word.
 */
static bool may_have_hooks(const std::string &text)
{
    return text.find("@hooks") != std::string::npos || text.find('\\') != std::string::npos;
}

/* Adds the files that the file `path` loads or includes. */
static void add_references(AlsaFiles *files, const std::string &path)
{
    std::string text;
    if (config_file_read(path.c_str(), &text) != 0) {
        return;
    }
    add_includes(files, text);
    if (!may_have_hooks(text)) {
        return;
    }
    /* snd_config_load_string() does not run the hooks: they stay in the tree as plain entries. */
    snd_config_t *root = nullptr;
    if (snd_config_load_string(&root, text.c_str(), text.size()) >= 0) {
        add_hooks(files, root);
        snd_config_delete(root);
    }
}

/* Adds the file `path` unless it was added before, as happens when files include each other. */
static void add_file(AlsaFiles *files, const std::string &path)
{
    const auto [entry, is_new] = files->stamps.emplace(path, config_file_stamp(path.c_str()));
    if (is_new && S_ISREG(entry->second.mode)) {
        add_references(files, path);
    }
}

/* Adds a file, or a folder and its members: a hook may name either. */
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
        if (stamp != config_file_stamp(path.c_str())) {
            return true;
        }
    }
    return false;
}
