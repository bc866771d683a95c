#include "ctl_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <glib.h>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "autoptr.h"
#include "client_bus.h"
#include "client_error.h"
#include "client_play.h"
#include "ctl_driver.h"
#include "ctl_host.h"

namespace
{

constexpr int MAX_LINKS = 40; /* the limit of the kernel */

/* The folders that the daemon's systemd unit hides from it, by ProtectHome=, PrivateTmp= and
 * InaccessiblePaths=. The rights of a file in them make no difference. */
constexpr std::array HIDDEN = {
    "/dev/mqueue",      "/dev/shm",  "/home", "/root",      "/run/lock",
    "/run/screen",      "/run/user", "/tmp",  "/var/crash", "/var/lib/php/sessions",
    "/var/spool/samba", "/var/tmp",
};

struct User {
    uid_t uid;
    std::span<const gid_t> gids;
    const char *name;
};

enum Right { SEARCH = 1, READ = 4 };

bool has_acl(const char *path)
{
    return getxattr(path, "system.posix_acl_access", nullptr, 0) >= 0;
}

bool admits(const char *path, const struct stat &file, const User &user, Right right)
{
    if (user.uid == 0 || has_acl(path)) {
        return true;
    }
    const bool in_group = std::ranges::find(user.gids, file.st_gid) != user.gids.end();
    const int shift = file.st_uid == user.uid ? 6 : in_group ? 3 : 0;
    return (file.st_mode >> shift & right) != 0;
}

/* Resolves a path as the kernel does, until a component cannot be accessed. */
struct Walk {
    User user;
    std::string folder;             /* the folder reached so far, an absolute path without links */
    std::vector<std::string> ahead; /* remaining components in reverse order */
    int links;
    bool is_missing;
    bool is_folder;     /* the path ends with a folder */
    std::string reason; /* why access fails; empty if no reason is found */
};

/* Inserts the components of `path` before the remaining ones. */
void add_ahead(Walk *walk, const char *path)
{
    g_auto(GStrv) parts = g_strsplit(path, "/", -1);
    for (guint i = g_strv_length(parts); i > 0; i--) {
        if (*parts[i - 1] != '\0' && !g_str_equal(parts[i - 1], ".")) {
            walk->ahead.emplace_back(parts[i - 1]);
        }
    }
}

void go_up(Walk *walk)
{
    walk->folder.resize(walk->folder.rfind('/'));
}

/* Follows the link at `path`. Returns false if the link cannot be read or there are too many. */
bool follow(Walk *walk, const std::string &path)
{
    std::array<char, 4096> target = {};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size() - 1);
    if (length < 0 || ++walk->links > MAX_LINKS) {
        return false;
    }
    if (target[0] == '/') {
        walk->folder.clear();
    }
    add_ahead(walk, target.data());
    return true;
}

void check_file(Walk *walk, const std::string &path, const struct stat &file)
{
    if (!S_ISREG(file.st_mode)) {
        walk->reason = "'" + path + "' is not a regular file";
    } else if (!admits(path.c_str(), file, walk->user, READ)) {
        walk->reason = "the daemon's user '" + std::string(walk->user.name) +
                       "' cannot read it; to allow everyone: chmod a+r '" + path + "'";
    }
}

/* Advances by one component. Returns false at the end of the path or where access fails. */
bool step(Walk *walk)
{
    struct stat found = {};
    const std::string here = walk->folder.empty() ? "/" : walk->folder;
    if (lstat(here.c_str(), &found) < 0) {
        return false;
    }
    if (!admits(here.c_str(), found, walk->user, SEARCH)) {
        walk->reason = "the daemon's user '" + std::string(walk->user.name) +
                       "' cannot access directory '" + here +
                       "'; put clips under /etc/audioclips, in directories with mode 755";
        return false;
    }
    if (walk->ahead.empty()) {
        walk->is_folder = true;
        return false;
    }
    const std::string name = walk->ahead.back();
    walk->ahead.pop_back();
    if (name == "..") {
        if (!walk->folder.empty()) {
            go_up(walk);
        }
        return true;
    }
    const std::string path = walk->folder + "/" + name;
    if (lstat(path.c_str(), &found) < 0) {
        walk->is_missing = errno == ENOENT;
        if (walk->is_missing) {
            walk->reason = "'" + path + "' does not exist";
        }
        return false;
    }
    if (S_ISLNK(found.st_mode)) {
        return follow(walk, path);
    }
    if (S_ISDIR(found.st_mode)) {
        walk->folder = path;
        return true;
    }
    if (walk->ahead.empty()) {
        check_file(walk, path, found);
    } else {
        walk->is_missing = true;
        walk->reason = "'" + path + "' is not a directory";
    }
    return false;
}

/* Reads the variant with the group numbers. */
int read_groups(sd_bus_message *m, std::vector<gid_t> *gids)
{
    const void *values = nullptr;
    size_t size = 0;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "au");
    if (r < 0 || (r = sd_bus_message_read_array(m, 'u', &values, &size)) < 0) {
        return r;
    }
    const auto *numbers = static_cast<const guint32 *>(values);
    gids->assign(numbers, numbers + size / sizeof *numbers);
    r = sd_bus_message_exit_container(m);
    return r < 0 ? r : 1;
}

/* Asks the bus for the daemon's user and groups. The groups stay empty if the bus does not report
 * them. */
bool find_daemon_user(sd_bus *bus, uid_t *uid, std::vector<gid_t> *gids)
{
    sd_bus_message *call = client_bus_new_call(bus, &CTL_BUS_DRIVER, "GetConnectionCredentials",
                                               nullptr, "s", CLIENT_SONOBRIK.service);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, nullptr);
    *uid = static_cast<uid_t>(-1);
    if (!answer) {
        return false;
    }
    const auto read = [&answer, uid, gids](const char *key, const char *type) {
        if (g_str_equal(key, "UnixUserID") && g_str_equal(type, "u")) {
            return sd_bus_message_read(answer, "v", "u", uid);
        }
        return g_str_equal(key, "UnixGroupIDs") && g_str_equal(type, "au")
                   ? read_groups(answer, gids)
                   : 0;
    };
    const int r = client_bus_read_properties(answer, read);
    return r >= 0 && *uid != static_cast<uid_t>(-1);
}

/* Looks up the groups of the user, since older message buses do not report them. */
void look_up_groups(const struct passwd *user, std::vector<gid_t> *gids)
{
    int count = 64;
    gids->resize(count);
    while (getgrouplist(user->pw_name, user->pw_gid, gids->data(), &count) < 0 &&
           count > static_cast<int>(gids->size())) {
        gids->resize(count);
    }
    gids->resize(count);
}

/* Returns why the daemon cannot see a file in a hidden folder; empty for any other file. */
std::string explain_hidden(const char *path)
{
    const auto *hidden = std::ranges::find_if(HIDDEN, [path](const char *folder) {
        return g_str_has_prefix(path, folder) && path[strlen(folder)] == '/';
    });
    return hidden == HIDDEN.end() ? ""
                                  : std::string("the daemon cannot see files in ") + *hidden +
                                        " (systemd sandbox); put clips under /etc/audioclips";
}

} // namespace

std::string ctl_file_explain(sd_bus *bus, const char *path, bool may_be_pattern, bool *is_missing)
{
    uid_t uid = 0;
    std::vector<gid_t> gids;
    *is_missing = false;
    if (ctl_host()) {
        return explain_hidden(path);
    }
    if (!find_daemon_user(bus, &uid, &gids)) {
        return "";
    }
    const struct passwd *user = getpwuid(uid);
    if (gids.empty() && user) {
        look_up_groups(user, &gids);
    }
    const std::string name = user ? user->pw_name : std::to_string(uid);
    std::string reason =
        ctl_file_explain_for(uid, gids, name.c_str(), path, may_be_pattern, is_missing);
    return reason.empty() ? explain_hidden(path) : reason;
}

std::string ctl_file_explain_for(uid_t uid, std::span<const gid_t> gids, const char *name,
                                 const char *path, bool may_be_pattern, bool *is_missing)
{
    Walk walk = {
        .user = {.uid = uid, .gids = gids, .name = name},
        .folder = "",
        .ahead = {},
        .links = 0,
        .is_missing = false,
        .is_folder = false,
        .reason = "",
    };
    struct stat found = {};
    g_autofree char *parent = g_path_get_dirname(path);
    /* For a pattern, checks only the folder. */
    const bool is_pattern = may_be_pattern && client_play_has_wildcards(path) &&
                            lstat(path, &found) < 0 && errno == ENOENT;
    add_ahead(&walk, is_pattern ? parent : path);
    while (step(&walk)) {
    }
    if (walk.is_folder && !is_pattern) {
        walk.reason = "'" + (walk.folder.empty() ? "/" : walk.folder) + "' is a directory";
    }
    *is_missing = walk.is_missing;
    return walk.reason;
}

std::string ctl_file_advise(const char *error, const char *path)
{
    const bool is_unknown = g_str_has_prefix(error, CLIENT_TEXT_UNKNOWN);
    if (g_str_has_prefix(error, CLIENT_TEXT_NO_FILE) && client_play_has_wildcards(path)) {
        return "to find out why a matching file is not played: " + ctl_host_self("check FILE");
    }
    if (!is_unknown && !g_str_has_suffix(error, CLIENT_TEXT_UNSUPPORTED)) {
        return "";
    }
    if (is_unknown && ctl_host()) {
        return ""; /* the daemon sends the same text for a missing file */
    }
    g_autofree char *name = g_path_get_basename(path);
    const char *dot = strrchr(name, '.');
    const std::string stem(name, dot && dot != name ? dot - name : strlen(name));
    g_autofree char *from = g_shell_quote(name);
    /* Not the name of the file itself. */
    const bool is_wav = g_str_has_suffix(name, ".wav");
    g_autofree char *to = g_shell_quote((stem + (is_wav ? "-new.wav" : ".wav")).c_str());
    return std::string(is_unknown ? "if it plays elsewhere, " : "") +
           "convert it to WAV, MP3, Vorbis or Opus, for example: ffmpeg -i " + from + " " + to;
}
