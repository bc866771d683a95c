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
#include "ctl_driver.h"

namespace
{

constexpr int MAX_LINKS = 40; /* as many as the kernel follows */

/* Folders that the service's unit shows empty. */
constexpr std::array HIDDEN = {"/home/", "/root/", "/run/user/", "/tmp/", "/var/tmp/"};

struct User {
    uid_t uid;
    std::span<const gid_t> gids;
    const char *name;
};

enum Right { SEARCH = 1, READ = 4 };

bool has_list(const char *path)
{
    return getxattr(path, "system.posix_acl_access", nullptr, 0) >= 0;
}

bool admits(const char *path, const struct stat &file, const User &user, Right right)
{
    if (user.uid == 0 || has_list(path)) {
        return true;
    }
    const bool in_group = std::ranges::find(user.gids, file.st_gid) != user.gids.end();
    const int shift = file.st_uid == user.uid ? 6 : in_group ? 3 : 0;
    return (file.st_mode >> shift & right) != 0;
}

/* A walk along a path as the kernel goes, which ends with a reason or at the file. */
struct Walk {
    User user;
    std::string folder;             /* where it is, an absolute path without links */
    std::vector<std::string> ahead; /* components, the next one last */
    int links;
    bool is_missing;
    std::string reason; /* empty as long as there is none */
};

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

/* Follows the link at `path`. False if that leads nowhere. */
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

void judge_file(Walk *walk, const std::string &path, const struct stat &file)
{
    if (!S_ISREG(file.st_mode)) {
        walk->reason = "'" + path + "' is no regular file";
    } else if (!admits(path.c_str(), file, walk->user, READ)) {
        walk->reason = "the daemon's user, " + std::string(walk->user.name) +
                       ", may not read it; let everybody: chmod a+r '" + path + "'";
    }
}

/* Goes one component on. False at the end, with or without a reason. */
bool step(Walk *walk)
{
    struct stat found = {};
    const std::string here = walk->folder.empty() ? "/" : walk->folder;
    if (lstat(here.c_str(), &found) < 0) {
        return false;
    }
    if (!admits(here.c_str(), found, walk->user, SEARCH)) {
        walk->reason = "the daemon's user, " + std::string(walk->user.name) +
                       ", may not look into the folder '" + here +
                       "'; clips belong below /etc/audioclips, where all folders are open";
        return false;
    }
    if (walk->ahead.empty()) {
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
            walk->reason = "there is no '" + path + "'";
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
        judge_file(walk, path, found);
    } else {
        walk->is_missing = true;
        walk->reason = "'" + path + "' is no folder";
    }
    return false;
}

/* Reads one {sv} of the credentials. Returns 0 at their end. */
int read_credential(sd_bus_message *m, uid_t *uid, std::vector<gid_t> *gids)
{
    const char *key = nullptr;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv");
    if (r <= 0 || (r = sd_bus_message_read(m, "s", &key)) < 0) {
        return r;
    }
    const char *contents = nullptr;
    if ((r = sd_bus_message_peek_type(m, nullptr, &contents)) < 0) {
        return r;
    }
    if (g_str_equal(key, "UnixUserID") && g_strcmp0(contents, "u") == 0) {
        r = sd_bus_message_read(m, "v", "u", uid);
    } else if (g_str_equal(key, "UnixGroupIDs") && g_strcmp0(contents, "au") == 0) {
        const void *values = nullptr;
        size_t size = 0;
        if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "au")) >= 0 &&
            (r = sd_bus_message_read_array(m, 'u', &values, &size)) >= 0) {
            const auto *numbers = static_cast<const guint32 *>(values);
            gids->assign(numbers, numbers + size / sizeof *numbers);
            r = sd_bus_message_exit_container(m);
        }
    } else {
        r = sd_bus_message_skip(m, "v");
    }
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) {
        return r;
    }
    return 1;
}

/* Asks the bus who the daemon is. */
bool find_daemon(sd_bus *bus, uid_t *uid, std::vector<gid_t> *gids)
{
    sd_bus_message *call = client_bus_new_call(bus, &CTL_BUS_DRIVER, "GetConnectionCredentials",
                                               nullptr, "s", CLIENT_SONOBRIK.service);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, nullptr);
    *uid = static_cast<uid_t>(-1);
    if (!answer) {
        return false;
    }
    int r = sd_bus_message_enter_container(answer, SD_BUS_TYPE_ARRAY, "{sv}");
    while (r >= 0 && (r = read_credential(answer, uid, gids)) > 0) {
    }
    return r >= 0 && *uid != static_cast<uid_t>(-1);
}

/* The groups of the user, from the machine's files: a bus of old does not tell them. */
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

bool is_hidden(const char *path)
{
    return std::ranges::any_of(
        HIDDEN, [path](const char *hidden) { return g_str_has_prefix(path, hidden); });
}

} // namespace

char *ctl_file_explain(sd_bus *bus, const char *path, bool *is_missing)
{
    uid_t uid = 0;
    std::vector<gid_t> gids;
    *is_missing = false;
    if (!find_daemon(bus, &uid, &gids)) {
        return nullptr;
    }
    const struct passwd *user = getpwuid(uid);
    if (gids.empty() && user) {
        look_up_groups(user, &gids);
    }
    const std::string name = user ? user->pw_name : std::to_string(uid);
    char *reason = ctl_file_explain_for(uid, gids, name.c_str(), path, is_missing);
    if (!reason && is_hidden(path)) {
        return g_strdup("the service may not see files there: its unit hides the folders of "
                        "people, and /tmp; clips belong below /etc/audioclips");
    }
    return reason;
}

char *ctl_file_explain_for(uid_t uid, std::span<const gid_t> gids, const char *name,
                           const char *path, bool *is_missing)
{
    Walk walk = {
        .user = {.uid = uid, .gids = gids, .name = name},
        .folder = "",
        .ahead = {},
        .links = 0,
        .is_missing = false,
        .reason = "",
    };
    struct stat found = {};
    g_autofree char *parent = g_path_get_dirname(path);
    /* Of a pattern, the folder says all that can be said. */
    const bool is_pattern =
        strpbrk(strrchr(path, '/'), "*?") && lstat(path, &found) < 0 && errno == ENOENT;
    add_ahead(&walk, is_pattern ? parent : path);
    while (step(&walk)) {
    }
    *is_missing = walk.is_missing;
    return walk.reason.empty() ? nullptr : g_strdup(walk.reason.c_str());
}
