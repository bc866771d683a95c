#include "ctl.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "autoptr.h"
#include "client_bus.h"
#include "ctl_clips.h"
#include "ctl_copy.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

/* Resolves a path without its last component. Empty, with errno, if that is not possible. */
std::string resolve_folder(const char *path)
{
    g_autofree char *folder = g_path_get_dirname(path);
    std::array<char, PATH_MAX> resolved = {};
    return realpath(folder, resolved.data()) ? resolved.data() : "";
}

/*
 * Returns the location of a file that lies below the clips' folder, by whichever way `path` gets
 * there; empty for one elsewhere.
 */
std::string find_location(const char *path)
{
    const std::string folder = resolve_folder(path);
    const std::string clips = resolve_folder((std::string(CTL_CLIP_FOLDER) + "/.").c_str());
    g_autofree char *name = g_path_get_basename(path);
    if (clips.empty() || !folder.starts_with(clips) ||
        (folder.size() > clips.size() && folder[clips.size()] != '/')) {
        return "";
    }
    return CTL_CLIP_FOLDER + folder.substr(clips.size()) + "/" + name;
}

/* False, after a line, if there is nothing at `path` that could be added. */
bool is_there(const char *path, int *status)
{
    if (g_file_test(path, G_FILE_TEST_IS_DIR)) {
        ctl_error("'%s' is a folder; add one of its files", path);
        *status = CTL_USAGE;
        return false;
    }
    if (access(path, F_OK) < 0) {
        ctl_error("cannot add '%s': %s", path, g_strerror(errno));
        *status = errno == ENOENT || errno == ENOTDIR ? CTL_NO_CLIP : CTL_FAILED;
        return false;
    }
    return true;
}

/* Returns the file's name without its suffix, which people may read. */
std::string make_name(const std::string &location)
{
    std::string name = location.substr(location.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) {
        name.resize(dot);
    }
    return name;
}

int add(sd_bus *bus, const std::string &location, const char *name)
{
    g_autoptr(GError) error = nullptr;
    if (!ctl_clips_is_supported(bus, location.c_str(), &error)) {
        const CtlCall call = ctl_clips_supported_call(bus, location.c_str());
        return ctl_explain(&call, error);
    }
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = "AddClip",
        .path = nullptr,
    };
    sd_bus_message *message = client_bus_new_call(bus, call.interface, call.method, &error, "sss",
                                                  location.c_str(), name, "audio");
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, message, &error);
    gint32 number = 0;
    if (answer) {
        const int r = sd_bus_message_read(answer, "i", &number);
        if (r < 0) {
            g_set_error_literal(&error, CLIENT_ERROR, CLIENT_ERROR_REPLY, g_strerror(-r));
        }
    }
    if (error) {
        return ctl_explain(&call, error);
    }
    printf("%d\n", number);
    return CTL_OK;
}

/* Whether the clip may be stored although its adding failed: nobody said that it was not. */
bool is_uncertain(int status)
{
    return status == CTL_AWAY;
}

} // namespace

int ctl_add(const CtlCommand *command, char **words)
{
    g_autofree char *name = nullptr;
    gboolean is_copying = FALSE;
    const GOptionEntry entries[] = {
        {"name", 'n', 0, G_OPTION_ARG_FILENAME, &name,
         "What people call it, instead of the file's name", "NAME"},
        {"copy", 'c', 0, G_OPTION_ARG_NONE, &is_copying,
         "Copy a file from elsewhere to /etc/audioclips first", nullptr},
        {},
    };
    g_auto(GStrv) operands = ctl_options_read(command, words, entries, 1, 1);
    if (!operands) {
        return CTL_USAGE;
    }
    int status = CTL_OK;
    if (!is_there(operands[0], &status)) {
        return status;
    }
    const std::string path = ctl_clips_absolute(operands[0]);
    std::string location = find_location(path.c_str());
    const bool is_elsewhere = location.empty();
    if (is_elsewhere && !is_copying) {
        ctl_error("'%s' is not below %s, where clips have to lie", operands[0], CTL_CLIP_FOLDER);
        ctl_error(
            "move it there and add it then, or let it be copied: sonobrikctl add --copy FILE");
        return CTL_USAGE;
    }
    const std::string title = name ? name : make_name(path);
    if (!g_utf8_validate(path.c_str(), -1, nullptr) ||
        !g_utf8_validate(title.c_str(), -1, nullptr)) {
        ctl_error("names of clips and files have to be UTF-8");
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    if (is_elsewhere) {
        location = ctl_copy_to_clips(path.c_str());
        if (location.empty()) {
            return CTL_FAILED;
        }
    }
    status = add(bus, location, title.c_str());
    if (status != CTL_OK && is_elsewhere && !is_uncertain(status)) {
        unlink(location.c_str());
    }
    return status;
}
