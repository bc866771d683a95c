#include "ctl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_text.h"
#include "ctl_clips.h"
#include "ctl_host.h"
#include "ctl_json.h"
#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_terminal.h"

namespace
{

/*
 * Returns the format of a clip's file, such as "ogg/vorbis" for the media types "application/ogg"
 * and "audio/x-vorbis". Checks whether the file exists if it is on this machine, because the daemon
 * keeps the metadata of a file that has been deleted.
 */
std::string describe_format(const ClientClip &clip)
{
    if (!ctl_host() && !clip.file_name && access(clip.location, F_OK) < 0 && errno == ENOENT) {
        return "no file";
    }
    std::string text;
    for (char **type = clip.media_types; type && *type; type++) {
        const char *slash = strchr(*type, '/');
        const char *name = slash ? slash + 1 : *type;
        text += text.empty() ? "" : "/";
        text += g_str_has_prefix(name, "x-") ? name + 2 : name;
    }
    return text.empty() ? "-" : text;
}

void print_clips(const GPtrArray *clips)
{
    CtlTable table = {
        .is_right = {true, false, false, false, true, true},
        .can_shrink = {false, true, true, false, false, false},
        .rows = {{"NUMBER", "NAME", "FILE", "FORMAT", "LENGTH", "SIZE"}},
    };
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        table.rows.push_back({
            std::to_string(clip->number),
            clip->name,
            clip->file_name ? clip->file_name : client_clips_relative(clip->location),
            describe_format(*clip),
            client_text_duration(clip->duration_ms),
            client_text_size(clip->size_kib),
        });
    }
    if (clips->len == 0) {
        ctl_error("no clips yet; to add one: %s",
                  ctl_host_self(ctl_host() ? "add FILE" : "add --copy FILE").c_str());
        return;
    }
    ctl_table_print(&table);
}

void print_clips_json(const GPtrArray *clips)
{
    g_autoptr(json_t) array = json_array();
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        json_t *types = clip->media_types ? json_array() : json_null();
        for (char **type = clip->media_types; type && *type; type++) {
            json_array_append_new(types, json_string(*type));
        }
        json_t *object = json_object();
        json_object_set_new(object, "number", json_integer(clip->number));
        json_object_set_new(object, "name", json_string(clip->name));
        json_object_set_new(object, "location",
                            clip->file_name ? json_null() : json_string(clip->location));
        json_object_set_new(object, "mediaTypes", types);
        json_object_set_new(object, "sizeKiB", ctl_json_number_or_null(clip->size_kib));
        json_object_set_new(object, "durationMs", ctl_json_number_or_null(clip->duration_ms));
        json_array_append_new(array, object);
    }
    ctl_json_print(array, true);
}

/* Returns true if the name is printable, fits on one line and identifies this clip only. */
bool has_usable_name(const GPtrArray *clips, const ClientClip &clip)
{
    return *clip.name != '\0' && client_text_escape(clip.name) == clip.name &&
           client_clips_find(clips, clip.name, nullptr) == &clip;
}

void print_names(const GPtrArray *clips)
{
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        if (has_usable_name(clips, *clip)) {
            puts(clip->name);
        }
    }
}

/* Returns true if the clips are those of client_clips_list_metadata(). */
bool has_metadata_alone(const GPtrArray *clips)
{
    return clips->len > 0 &&
           static_cast<const ClientClip *>(g_ptr_array_index(clips, 0))->file_name;
}

int list_clips(sd_bus *bus, bool as_json, bool names_only)
{
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = ctl_clips_list_visible(bus, !names_only, &status);
    if (!clips) {
        return status;
    }
    if (names_only) {
        print_names(clips);
    } else if (as_json) {
        print_clips_json(clips);
    } else {
        print_clips(clips);
    }
    if (status == CTL_DENIED && !names_only) {
        ctl_error(has_metadata_alone(clips)
                      ? "you may only read metadata; directories, and clips whose file is missing "
                        "or damaged, are left out"
                      : "you may not read formats, lengths and sizes, so they are left out");
    }
    return CTL_OK;
}

} // namespace

int ctl_list(const CtlCommand *command, char **words)
{
    gboolean as_json = FALSE;
    gboolean names_only = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_flag("json", 0, "Print a JSON array, for programs", &as_json),
        ctl_options_flag("names", 0, "Print only unambiguous names, one per line", &names_only),
        {},
    };
    const auto check = [&as_json, &names_only](char **) {
        if (!as_json || !names_only) {
            return CTL_OK;
        }
        ctl_error("--json and --names cannot be combined");
        return CTL_USAGE;
    };
    return ctl_options_run(command, words, entries, check,
                           [&as_json, &names_only](sd_bus *bus, char **) {
                               return list_clips(bus, as_json, names_only);
                           });
}
