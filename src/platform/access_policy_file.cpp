#include "access_policy_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform_error.h"

namespace
{

const char *access_file = "/etc/vesk/access.conf";

constexpr const char *USERS_KEY = "users";
constexpr const char *GROUPS_KEY = "groups";
constexpr const char *EVERYBODY = "*";
constexpr size_t SIZE_MAX_BYTES = 1U << 20; /* a policy is some lines; beyond is a mistake */

/*
 * A file system stamps a change with a clock that stands still for some milliseconds, so a second
 * change may leave the stamps of the first. A file is taken as unchanged only once its stamps are
 * older than this when it is read.
 */
constexpr gint64 SETTLED_USEC = G_USEC_PER_SEC;

/* What differs when the file at the path changed. */
struct Stamps {
    int fault = -1; /* errno of stat(), 0 if it worked, -1 before the first read */
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    gint64 modified_nsec = 0;
    gint64 changed_nsec = 0;

    bool operator==(const Stamps &) const = default;
};

struct {
    Stamps stamps;
    bool settled;                     /* were the stamps old enough to show the next change? */
    GKeyFile *groups;                 /* null without a usable file */
    std::string why_none;             /* why `groups` is null */
    std::vector<std::string> unknown; /* "key name" that were logged as unknown */
} policy;

gint64 in_nsec(const struct timespec &time)
{
    return static_cast<gint64>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

Stamps take_stamps()
{
    struct stat st = {};
    if (stat(access_file, &st) < 0) {
        return {.fault = errno};
    }
    return {
        .fault = 0,
        .device = st.st_dev,
        .inode = st.st_ino,
        .size = st.st_size,
        .modified_nsec = in_nsec(st.st_mtim),
        .changed_nsec = in_nsec(st.st_ctim),
    };
}

bool is_absent(const Stamps &stamps)
{
    return stamps.fault == ENOENT || stamps.fault == ENOTDIR;
}

bool set_file_error(GError **error, int fault, const char *reason)
{
    g_set_error(error, PLATFORM_ERROR, fault, "%s: %s", access_file, reason);
    return false;
}

/* Reads the whole file from `fd`, which must be a regular one: to read from another may wait for
 * ever. */
bool read_text(int fd, std::string *text, GError **error)
{
    struct stat st = {};
    if (fstat(fd, &st) < 0) {
        return set_file_error(error, errno, g_strerror(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        return set_file_error(error, EINVAL, "not a regular file");
    }
    std::array<char, 4096> part;
    for (;;) {
        const ssize_t length = read(fd, part.data(), part.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return set_file_error(error, errno, g_strerror(errno));
        }
        if (length == 0) {
            return true;
        }
        text->append(part.data(), static_cast<size_t>(length));
        if (text->size() > SIZE_MAX_BYTES) {
            return set_file_error(error, EFBIG, g_strerror(EFBIG));
        }
    }
}

bool read_file(std::string *text, GError **error)
{
    const int fd = open(access_file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return set_file_error(error, errno, g_strerror(errno));
    }
    const bool read = read_text(fd, text, error);
    close(fd);
    return read;
}

/* Can every list be read? So that a fault is found when the file is loaded, not when it is asked.
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

/* Returns the groups of the file's text; g_key_file_unref(). */
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

/* The stamps are taken before the file is opened: a change in between is found at the next check.
 */
bool load(const Stamps &stamps, GError **error)
{
    if (stamps != policy.stamps) {
        policy.unknown.clear();
    }
    policy.stamps = stamps;
    policy.settled =
        stamps.fault != 0 || stamps.changed_nsec / 1000 < g_get_real_time() - SETTLED_USEC;
    if (policy.groups) {
        g_key_file_unref(g_steal_pointer(&policy.groups));
    }
    if (is_absent(stamps)) {
        policy.why_none = std::string("there is no ") + access_file;
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
    return true;
}

void refresh()
{
    const Stamps stamps = take_stamps();
    const bool changed = stamps != policy.stamps;
    if (!changed && policy.settled) {
        return;
    }
    g_autoptr(GError) error = nullptr;
    if (!load(stamps, &error) && changed) {
        g_warning("%sOnly uid 0 is allowed anything until this is mended: %s", "", error->message);
    }
}

/* Returns the most specific group that covers `action` (g_free()), or null. */
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

/* Calls one of getpwnam_r() and getgrnam_r() with as large a buffer as the entry needs. */
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

/* Turns a user's or a group's number or name into its id; the last 32-bit number is nobody's id. */
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
    g_warning("%s%s: '%s' in %s of [%s] is not known here and is skipped", "", access_file, name,
              key, group);
}

/*
 * Does the list `key` of `group` name one of `ids`? Names are looked up each time, so that the
 * answer follows the machine's users and groups.
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
    if (!load(take_stamps(), error)) {
        return false;
    }
    if (!policy.groups) {
        g_info("%sOnly uid 0 is allowed anything: %s", "", policy.why_none.c_str());
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
        g_set_error(error, PLATFORM_ERROR, EACCES, "uid %u may not perform %s: %s", uid, action,
                    policy.why_none.c_str());
        return false;
    }
    g_autofree char *group = find_group(action);
    if (!group) {
        g_set_error(error, PLATFORM_ERROR, EACCES,
                    "uid %u may not perform %s: no group of %s covers it", uid, action,
                    access_file);
        return false;
    }
    if (lists_one(group, USERS_KEY, {&uid, 1}) || lists_one(group, GROUPS_KEY, gids)) {
        return true;
    }
    g_set_error(error, PLATFORM_ERROR, EACCES,
                "uid %u may not perform %s: [%s] of %s lists neither it nor a group of it", uid,
                action, group, access_file);
    return false;
}

void access_policy_file_set_path(const char *path)
{
    access_file = path;
}
