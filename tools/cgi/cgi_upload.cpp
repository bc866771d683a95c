#include "cgi_upload.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <string_view>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi_input.h"
#include "cgi_name.h"
#include "cgi_output.h"
#include "client_clips.h"

namespace
{

constexpr const char *FOLDER = ".uploads";

/* A file that was not changed for this long is not being uploaded any more: an upload that gets no
 * data ends sooner. */
constexpr time_t STALE_SECONDS = 3600;

/* How many numbers are tried if a file's name is taken. */
constexpr int NUMBER_MAX = 999;

struct Format {
    const char *name; /* with its article */
    size_t offset;
    std::string_view mark;
};

/* Common formats that the daemon never plays. */
constexpr std::array<Format, 8> REFUSED = {{
    {.name = "a FLAC", .offset = 0, .mark = "fLaC"},
    {.name = "an AAC (M4A or MP4)", .offset = 4, .mark = "ftyp"},
    {.name = "an AAC", .offset = 0, .mark = "\xff\xf1"},
    {.name = "an AAC", .offset = 0, .mark = "\xff\xf9"},
    {.name = "a WMA", .offset = 0, .mark = "\x30\x26\xb2\x75"},
    {.name = "a WebM or Matroska", .offset = 0, .mark = "\x1a\x45\xdf\xa3"},
    {.name = "an AIFF", .offset = 0, .mark = "FORM"},
    {.name = "an AMR", .offset = 0, .mark = "#!AMR"},
}};

/* The file that a signal removes. */
volatile sig_atomic_t doomed_folder = -1;
char doomed_name[NAME_MAX + 1];

void remove_and_exit(int)
{
    if (doomed_folder >= 0) {
        unlinkat(doomed_folder, doomed_name, 0);
    }
    _exit(1);
}

/* Makes the signals by which a web server ends a program remove the file first. */
void guard(int folder, const std::string &name)
{
    g_strlcpy(doomed_name, name.c_str(), sizeof doomed_name);
    doomed_folder = folder;
    struct sigaction action = {};
    action.sa_handler = remove_and_exit;
    for (const int number : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) {
        sigaction(number, &action, nullptr);
    }
}

/* Returns the outcome for a file that cannot be written. `reason` is an errno value. */
CgiOutcome explain(int reason)
{
    switch (reason) {
    case EACCES:
    case EPERM:
    case EROFS:
        return {CGI_NOT_WRITABLE, ""};
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return {CGI_NO_SPACE, ""};
    case EXDEV:
    case EINVAL:
    case ELOOP:
        return {CGI_OUTSIDE, ""};
    case ENOENT:
    case ENOTDIR:
        return {CGI_NO_FILE, ""};
    default:
        return {CGI_NOT_STORED, std::string("The reason: ") + g_strerror(reason) + "."};
    }
}

CgiDescriptor open_folder(int clips)
{
    /* The daemon's user can open a file whose name it is told, and cannot list the folder: so no
     * wildcard finds a file that was not checked, and its random name cannot be guessed. */
    constexpr mode_t LISTED_BY_THE_GROUP = 0771;
    CgiDescriptor folder;
    if (mkdirat(clips, FOLDER, LISTED_BY_THE_GROUP) != 0 && errno != EEXIST) {
        return folder;
    }
    /* Does not follow a symbolic link, which could lead out of the clip folder. */
    folder = CgiDescriptor(openat(clips, FOLDER, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    /* Whatever the umask is, the daemon needs access. This fails if another user created the
     * folder, but then that user's upload has already done it. */
    if (folder.is_open()) {
        static_cast<void>(fchmod(folder.get(), S_ISGID | LISTED_BY_THE_GROUP));
    }
    return folder;
}

void remove_stale(int folder)
{
    g_autofree char *path = g_strdup_printf("/proc/self/fd/%d", folder);
    g_autoptr(GDir) list = g_dir_open(path, 0, nullptr);
    while (const char *name = list ? g_dir_read_name(list) : nullptr) {
        struct stat status = {};
        if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(status.st_mode) &&
            status.st_mtime + STALE_SECONDS < time(nullptr)) {
            unlinkat(folder, name, 0);
        }
    }
}

/* Moves a file. Fails with EEXIST if there is a file of the new name. */
bool move_without_overwriting(int from, const char *old_name, int to, const char *new_name)
{
    if (renameat2(from, old_name, to, new_name, RENAME_NOREPLACE) == 0) {
        return true;
    }
    /* Some file systems, such as 9p, do not support renameat2(). */
    return (errno == EINVAL || errno == ENOSYS) && linkat(from, old_name, to, new_name, 0) == 0 &&
           unlinkat(from, old_name, 0) == 0;
}

} // namespace

CgiUpload::~CgiUpload()
{
    doomed_folder = -1;
    if (!name.empty()) {
        unlinkat(folder.get(), name.c_str(), 0);
    }
}

CgiOutcome CgiUpload::create()
{
    constexpr mode_t PRIVATE_UNTIL_COMPLETE = 0600;
    clips = cgi_folder_open();
    folder = clips.is_open() ? open_folder(clips.get()) : CgiDescriptor();
    if (!folder.is_open()) {
        return errno == ENOTDIR || errno == ELOOP
                   ? CgiOutcome{CGI_NOT_STORED, "/etc/audioclips/.uploads is not a folder."}
                   : explain(errno);
    }
    remove_stale(folder.get());
    guint64 number = 0;
    if (getrandom(&number, sizeof number, 0) != sizeof number) {
        return explain(errno);
    }
    g_autofree char *text = g_strdup_printf("%016" G_GINT64_MODIFIER "x", number);
    guard(folder.get(), text);
    file = CgiDescriptor(
        openat(folder.get(), text, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, PRIVATE_UNTIL_COMPLETE));
    if (!file.is_open()) {
        return explain(errno);
    }
    name = text;
    return {};
}

CgiOutcome CgiUpload::fill(int body_fd, gint64 length) const
{
    /* Refuses the file at once if there is no space for it. Some file systems cannot tell. */
    if (fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, length) != 0 && errno != EOPNOTSUPP &&
        errno != ENOSYS) {
        return explain(errno);
    }
    std::array<char, 65536> buffer;
    while (length > 0) {
        const size_t size =
            static_cast<size_t>(std::min(length, static_cast<gint64>(buffer.size())));
        const ssize_t got = cgi_input_read(body_fd, buffer.data(), size);
        if (got <= 0) {
            return {CGI_INVALID, "The file did not arrive completely. Try again."};
        }
        if (!cgi_output_write(file.get(), buffer.data(), static_cast<size_t>(got))) {
            return explain(errno);
        }
        length -= got;
    }
    return {};
}

CgiOutcome CgiUpload::finish() const
{
    constexpr mode_t READABLE_FOR_ALL = 0644;
    /* The web server's umask must not make the file unreadable for the daemon's user. */
    return fchmod(file.get(), READABLE_FOR_ALL) == 0 && fsync(file.get()) == 0 ? CgiOutcome{}
                                                                               : explain(errno);
}

CgiOutcome CgiUpload::receive(int body_fd, gint64 length)
{
    CgiOutcome outcome = create();
    if (outcome.result == CGI_OK) {
        outcome = fill(body_fd, length);
    }
    return outcome.result == CGI_OK ? finish() : outcome;
}

std::string CgiUpload::get_location() const
{
    return std::string(CLIENT_CLIP_FOLDER) + "/" + FOLDER + "/" + name;
}

std::string CgiUpload::get_refused_format() const
{
    std::array<char, 16> buffer = {};
    const ssize_t length = pread(file.get(), buffer.data(), buffer.size(), 0);
    const std::string_view start(buffer.data(), length > 0 ? static_cast<size_t>(length) : 0);
    for (const Format &format : REFUSED) {
        if (start.size() > format.offset && start.substr(format.offset).starts_with(format.mark)) {
            return format.name;
        }
    }
    return "";
}

CgiOutcome CgiUpload::place(const std::string &wanted, std::string *location)
{
    for (int number = 1; number <= NUMBER_MAX; number++) {
        const std::string target = number == 1 ? wanted : cgi_name_add_number(wanted, number);
        if (move_without_overwriting(folder.get(), name.c_str(), clips.get(), target.c_str())) {
            name.clear();
            fsync(clips.get());
            *location = std::string(CLIENT_CLIP_FOLDER) + "/" + target;
            return {};
        }
        if (errno != EEXIST) {
            return explain(errno);
        }
    }
    return explain(EEXIST);
}

CgiOutcome CgiUpload::replace(const std::string &location)
{
    const CgiPlace place = cgi_folder_find_place(location);
    struct stat status = {};
    if (!place.folder.is_open() ||
        fstatat(place.folder.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return explain(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return {CGI_OUTSIDE, ""};
    }
    if (renameat(folder.get(), name.c_str(), place.folder.get(), place.name.c_str()) != 0) {
        /* A folder below the clip folder may be another file system. */
        return errno == EXDEV ? CgiOutcome{CGI_NOT_STORED, "Its folder is on another file system."}
                              : explain(errno);
    }
    name.clear();
    fsync(place.folder.get());
    return {};
}

void CgiUpload::remove_placed(const std::string &location) const
{
    const CgiPlace place = cgi_folder_find_place(location);
    struct stat ours = {};
    struct stat found = {};
    if (place.folder.is_open() && fstat(file.get(), &ours) == 0 &&
        fstatat(place.folder.get(), place.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
        ours.st_dev == found.st_dev && ours.st_ino == found.st_ino) {
        unlinkat(place.folder.get(), place.name.c_str(), 0);
    }
}
