#include "alsa_overrides.h"

#include <glib.h>
#include <sys/stat.h>

/* The header declares snd_lib_error_set_local() without extern "C". */
extern "C" {
#include <alsa/asoundlib.h>
}

#include "config_file.h"

namespace
{

void ignore_complaint(const char *, int, const char *, int, const char *, va_list) {}

void add_names(snd_config_t *root, std::set<std::string> *names)
{
    snd_config_t *pcms = nullptr;
    if (snd_config_search(root, "pcm", &pcms) < 0 ||
        snd_config_get_type(pcms) != SND_CONFIG_TYPE_COMPOUND) {
        return;
    }
    snd_config_iterator_t position;
    snd_config_iterator_t next;
    snd_config_for_each(position, next, pcms)
    {
        const char *id = nullptr;
        if (snd_config_get_id(snd_config_iterator_entry(position), &id) >= 0 && id &&
            (g_str_has_prefix(id, "audiosink") || g_str_has_prefix(id, "device"))) {
            names->insert(id);
        }
    }
}

} // namespace

std::set<std::string> alsa_overrides_find(AlsaFiles *files, const std::set<std::string> &own_files)
{
    std::set<std::string> names;
    const snd_local_error_handler_t previous = snd_lib_error_set_local(ignore_complaint);
    *files = alsa_files_find();
    for (const auto &[path, stamp] : files->stamps) {
        std::string text;
        snd_config_t *root = nullptr;
        if (!S_ISREG(stamp.mode) || own_files.contains(path) ||
            config_file_read(path.c_str(), &text) != 0) {
            continue;
        }
        if (snd_config_load_string(&root, text.c_str(), text.size()) >= 0) {
            add_names(root, &names);
            snd_config_delete(root);
        }
    }
    snd_lib_error_set_local(previous);
    return names;
}
