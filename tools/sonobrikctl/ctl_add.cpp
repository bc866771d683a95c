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

/* Returns the folder of `path` without symbolic links, or an empty string and errno. */
std::string resolve_folder(const char *path)
{
    g_autofree char *folder = g_path_get_dirname(path);
    std::array<char, PATH_MAX> resolved = {};
    return realpath(folder, resolved.data()) ? resolved.data() : "";
}

/*
 * Returns the location of `path` under the clip folder, even if `path` gets there through symbolic
 * links. Returns an empty string if the file is elsewhere.
 */
std::string find_location(const char *path)
{
    const std::string folder = resolve_folder(path);
    const std::string clips = resolve_folder((std::string(CLIENT_CLIP_FOLDER) + "/.").c_str());
    g_autofree char *name = g_path_get_basename(path);
    if (clips.empty() || !folder.starts_with(clips) ||
        (folder.size() > clips.size() && folder[clips.size()] != '/')) {
        return "";
    }
    return CLIENT_CLIP_FOLDER + folder.substr(clips.size()) + "/" + name;
}

/* Returns false after printing an error, and sets `status`, if `path` is missing or a folder. */
bool check_exists(const char *path, int *status)
{
    if (g_file_test(path, G_FILE_TEST_IS_DIR)) {
        ctl_error("'%s' is a directory; add one of its files", path);
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

/* Returns the file's name without its suffix. */
std::string default_name(const std::string &location)
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

/* Copies `file`, an absolute path outside the clip folder, into it and adds the copy as a clip. */
int copy_and_add(sd_bus *bus, const char *file, const char *name)
{
    const std::string location = ctl_copy_to_clips(file);
    if (location.empty()) {
        return CTL_FAILED;
    }
    const int status = add(bus, location, name);
    /* If the daemon went away before it replied, it may have stored the clip. */
    if (status != CTL_OK && status != CTL_AWAY) {
        unlink(location.c_str());
    }
    return status;
}

} // namespace

int ctl_add(const CtlCommand *command, char **words)
{
    g_autofree char *name = nullptr;
    gboolean is_copying = FALSE;
    const GOptionEntry entries[] = {
        ctl_options_value("name", 'n', "Clip name (default: file name without suffix)", "NAME",
                          &name),
        ctl_options_flag("copy", 'c', "Copy the file to /etc/audioclips first", &is_copying),
        {},
    };
    std::string path;
    std::string location;
    std::string title;
    const auto check = [&](char **operands) -> int {
        int status = CTL_OK;
        if (!check_exists(operands[0], &status)) {
            return status;
        }
        path = ctl_clips_absolute(operands[0]);
        location = find_location(path.c_str());
        if (location.empty() && !is_copying) {
            ctl_error("'%s' is not under %s", operands[0], CLIENT_CLIP_FOLDER);
            ctl_error("move it there, or let sonobrikctl copy it: sonobrikctl add --copy FILE");
            return CTL_USAGE;
        }
        title = name ? name : default_name(path);
        if (!g_utf8_validate(path.c_str(), -1, nullptr) ||
            !g_utf8_validate(title.c_str(), -1, nullptr)) {
            ctl_error("clip and file names must be valid UTF-8");
            return CTL_USAGE;
        }
        return CTL_OK;
    };
    return ctl_options_run(command, words, entries, check, [&](sd_bus *bus, char **) {
        return location.empty() ? copy_and_add(bus, path.c_str(), title.c_str())
                                : add(bus, location, title.c_str());
    });
}
