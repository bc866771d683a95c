#include "access_policy_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "config_file.h"
#include "platform_error.h"

namespace
{

const char *access_file = SONOBRIK_SYSCONFDIR "/vesk/access.conf";

constexpr const char *USERS_KEY = "users";
constexpr const char *GROUPS_KEY = "groups";
constexpr const char *EVERYBODY = "*";

/* The methods that the daemon asks about. */
constexpr std::string_view INTERFACE_PREFIX = "com.vesk.Sonobrik.";
constexpr std::string_view METHODS[] = {
    "AddClip", "GetMetadata", "PlayClip", "StartPlayingClip", "StopPlayingClip", "SupportedFile",
};

/*
 * The kernel takes the time stamps of a file from a clock that ticks every few milliseconds, so two
 * changes within a tick have the same stamps. A stamp that was younger than this when the file was
 * read therefore does not prove that the file is unchanged, and the file is read again.
 */
constexpr gint64 SETTLED_USEC = G_USEC_PER_SEC;

struct {
    std::optional<ConfigFileStamp> stamp; /* of the file when it was read; none before that */
    bool is_settled;                      /* an equal stamp proves that the file is unchanged */
    GKeyFile *groups;                     /* null if there is no usable file */
    std::string why_none;                 /* the reason if `groups` is null */
    std::vector<std::string> unknown;     /* "KEY NAME" of the unknown names logged so far */
} policy;

bool is_absent(const ConfigFileStamp &stamp)
{
    return stamp.error == ENOENT || stamp.error == ENOTDIR;
}

bool set_file_error(GError **error, int fault, const char *reason)
{
    g_set_error(error, PLATFORM_ERROR, fault, "%s: %s", access_file, reason);
    return false;
}

bool read_file(std::string *text, GError **error)
{
    const int fault = config_file_read(access_file, text);
    return fault == 0 ||
           set_file_error(error, fault, fault == EINVAL ? "not a regular file" : g_strerror(fault));
}

/*
 * Returns true if every list can be read. Checking them while the file is loaded reports a mistake
 * at once, and not only when a caller needs that list.
 */
bool check_lists(GKeyFile *groups, GError **error)
{
    g_auto(GStrv) names = g_key_file_get_groups(groups, nullptr);
    for (char **name = names; *name; name++) {
        for (const char *key : {USERS_KEY, GROUPS_KEY}) {
            g_autoptr(GError) fault = nullptr;
            g_strfreev(g_key_file_get_string_list(groups, *name, key, nullptr, &fault));
            if (fault &&
                !g_error_matches(fault, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND)) {
                return set_file_error(error, EBADMSG, fault->message);
            }
        }
    }
    return true;
}

/* GKeyFile merges groups of the same name, so a forgotten one may admit more than intended. */
void warn_of_repeated_groups(const std::string &text)
{
    std::set<std::string> seen;
    for (std::string_view rest = text; !rest.empty();) {
        std::string line(rest.substr(0, rest.find('\n')));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        const std::string header = g_strstrip(line.data());
        if (header.starts_with('[') && !seen.insert(header).second) {
            g_warning("%s%s: %s occurs more than once; its lines count as one group", "",
                      access_file, header.c_str());
        }
    }
}

/* Warns of groups and keys without effect, which are probably misspelt. */
void warn_of_useless_entries(GKeyFile *groups)
{
    g_auto(GStrv) names = g_key_file_get_groups(groups, nullptr);
    for (char **name = names; *name; name++) {
        const std::string_view group = *name;
        if (group.starts_with(INTERFACE_PREFIX) &&
            std::ranges::find(METHODS, group.substr(INTERFACE_PREFIX.size())) ==
                std::end(METHODS)) {
            g_warning("%s%s: there is no method for [%s]", "", access_file, *name);
        }
        g_auto(GStrv) keys = g_key_file_get_keys(groups, *name, nullptr, nullptr);
        for (char **key = keys; key && *key; key++) {
            if (strcmp(*key, USERS_KEY) != 0 && strcmp(*key, GROUPS_KEY) != 0) {
                g_warning("%s%s: unknown key '%s' in [%s] is ignored", "", access_file, *key,
                          *name);
            }
        }
    }
}

/* Parses the content of the file. The caller frees the result with g_key_file_unref(). */
GKeyFile *parse(const std::string &text, GError **error)
{
    g_autoptr(GKeyFile) groups = g_key_file_new();
    g_autoptr(GError) fault = nullptr;
    if (!g_key_file_load_from_data(groups, text.data(), text.size(), G_KEY_FILE_NONE, &fault)) {
        set_file_error(error, EBADMSG, fault->message);
        return nullptr;
    }
    return check_lists(groups, error) ? g_steal_pointer(&groups) : nullptr;
}

/*
 * Reads the file. `stamp` was taken before this call, so the next check notices a change that
 * happens in between. Returns false if there is a file but it cannot be used.
 */
bool load(const ConfigFileStamp &stamp, GError **error)
{
    const bool is_new = stamp != policy.stamp;
    if (is_new) {
        policy.unknown.clear();
    }
    policy.stamp = stamp;
    policy.is_settled =
        stamp.error != 0 || stamp.changed_nsec / 1000 < g_get_real_time() - SETTLED_USEC;
    if (policy.groups) {
        g_key_file_unref(g_steal_pointer(&policy.groups));
    }
    if (is_absent(stamp)) {
        policy.why_none = std::string(access_file) + " does not exist";
        return true;
    }

    g_autoptr(GError) fault = nullptr;
    std::string text;
    if (read_file(&text, &fault)) {
        policy.groups = parse(text, &fault);
    }
    if (!policy.groups) {
        policy.why_none = std::string(access_file) + " cannot be used";
        g_propagate_error(error, g_steal_pointer(&fault));
        return false;
    }
    if (is_new) {
        warn_of_repeated_groups(text);
        warn_of_useless_entries(policy.groups);
    }
    return true;
}

/* Reads the file again if it may have changed. */
void refresh()
{
    const ConfigFileStamp stamp = config_file_stamp(access_file);
    const bool changed = stamp != policy.stamp;
    if (!changed && policy.is_settled) {
        return;
    }
    g_autoptr(GError) error = nullptr;
    if (!load(stamp, &error) && changed) {
        g_warning("%sOnly root is allowed until this is fixed: %s", "", error->message);
    }
}

/* Returns the most specific group for `action`, or null. The caller frees it with g_free(). */
char *find_group(const char *action)
{
    g_autofree char *name = g_strdup(action);
    while (!g_key_file_has_group(policy.groups, name)) {
        char *dot = strrchr(name, '.');
        if (!dot) {
            return nullptr;
        }
        *dot = '\0';
    }
    return g_steal_pointer(&name);
}

/* Calls getpwnam_r() or getgrnam_r() with a buffer that is large enough for the entry. */
template <typename Entry, typename Id>
bool look_up(int (*by_name)(const char *, Entry *, char *, size_t, Entry **), Id Entry::*member,
             const char *name, Id *id)
{
    std::vector<char> buffer(1024);
    Entry entry = {};
    Entry *found = nullptr;
    int r = 0;
    while ((r = by_name(name, &entry, buffer.data(), buffer.size(), &found)) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (r != 0 || !found) {
        return false;
    }
    *id = entry.*member;
    return true;
}

/*
 * Converts the number or name of a user or group to its id. Refuses 2^32 - 1, which is not an id:
 * the kernel uses it for "no change".
 */
bool resolve(const char *key, const char *name, id_t *id)
{
    guint64 number = 0;
    if (g_ascii_string_to_unsigned(name, 10, 0, G_MAXUINT32 - 1, &number, nullptr)) {
        *id = static_cast<id_t>(number);
        return true;
    }
    return strcmp(key, USERS_KEY) == 0 ? look_up(getpwnam_r, &passwd::pw_uid, name, id)
                                       : look_up(getgrnam_r, &group::gr_gid, name, id);
}

void log_unknown_once(const char *group, const char *key, const char *name)
{
    const std::string entry = std::string(key) + " " + name;
    if (std::ranges::find(policy.unknown, entry) != policy.unknown.end()) {
        return;
    }
    policy.unknown.push_back(entry);
    g_warning("%s%s: unknown %s '%s' in [%s] is ignored", "", access_file,
              strcmp(key, USERS_KEY) == 0 ? "user" : "group", name, group);
}

/*
 * Returns true if the list `key` of `group` contains one of `ids`. It looks the names up each time,
 * because users and groups may be added to the machine while the daemon runs.
 */
bool lists_one(const char *group, const char *key, std::span<const id_t> ids)
{
    g_auto(GStrv) names = g_key_file_get_string_list(policy.groups, group, key, nullptr, nullptr);
    bool listed = false;
    for (char **entry = names; entry && *entry; entry++) {
        const char *name = g_strstrip(*entry);
        if (!*name) {
            continue;
        }
        const bool is_everybody = strcmp(key, USERS_KEY) == 0 && strcmp(name, EVERYBODY) == 0;
        id_t id = 0;
        if (!is_everybody && !resolve(key, name, &id)) {
            log_unknown_once(group, key, name);
        } else if (is_everybody || std::ranges::find(ids, id) != ids.end()) {
            listed = true;
        }
    }
    return listed;
}

} // namespace

bool access_policy_file_load(GError **error)
{
    if (!load(config_file_stamp(access_file), error)) {
        return false;
    }
    if (!policy.groups) {
        g_info("%sOnly root is allowed: %s", "", policy.why_none.c_str());
    }
    return true;
}

bool access_policy_file_admits(uid_t uid, std::span<const gid_t> gids, const char *action,
                               GError **error)
{
    refresh();
    if (!policy.groups) {
        if (uid == 0) {
            return true;
        }
        g_set_error(error, PLATFORM_ERROR, EACCES, "uid %u is not allowed to call %s: %s", uid,
                    action, policy.why_none.c_str());
        return false;
    }
    g_autofree char *group = find_group(action);
    if (!group) {
        g_set_error(error, PLATFORM_ERROR, EACCES,
                    "uid %u is not allowed to call %s: %s has no group for this method", uid,
                    action, access_file);
        return false;
    }
    if (lists_one(group, USERS_KEY, {&uid, 1}) || lists_one(group, GROUPS_KEY, gids)) {
        return true;
    }
    /* A process always has a group, so an empty list means that the bus could not tell. */
    const bool groups_are_missing =
        gids.empty() && g_key_file_has_key(policy.groups, group, GROUPS_KEY, nullptr);
    g_set_error(
        error, PLATFORM_ERROR, EACCES,
        "uid %u is not allowed to call %s: [%s] in %s lists neither this user nor any of its "
        "groups%s",
        uid, action, group, access_file,
        groups_are_missing ? "; the bus did not report its groups, which needs Linux 4.13" : "");
    return false;
}

void access_policy_file_set_path(const char *path)
{
    access_file = path;
}
