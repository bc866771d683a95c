#include "ctl_copy.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client_clips.h"
#include "ctl_say.h"

namespace
{

constexpr const char *UNIQUE = ".XXXXXX";

constexpr std::array ENDING = {SIGHUP, SIGINT, SIGPIPE, SIGTERM};

/* The copy that a signal removes. */
char doomed_path[PATH_MAX];
volatile sig_atomic_t is_doomed = 0;

void remove_and_end(int number)
{
    if (is_doomed) {
        unlink(doomed_path);
    }
    /* The handler is already reset, so this ends the program when the handler returns. */
    raise(number);
}

/* Makes the signals that end the program remove the file first, unless they are ignored, as they
 * are in background jobs of shell scripts. Only while these signals are blocked. */
void guard(const std::string &path)
{
    g_strlcpy(doomed_path, path.c_str(), sizeof doomed_path);
    is_doomed = 1;
    for (const int number : ENDING) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            action = {};
            action.sa_handler = remove_and_end;
            action.sa_flags = SA_RESETHAND;
            sigaction(number, &action, nullptr);
        }
    }
}

bool write_all(int fd, const char *data, ssize_t length)
{
    while (length > 0) {
        const ssize_t written = write(fd, data, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return false;
        }
        data += written;
        length -= written;
    }
    return true;
}

bool copy_content(int from, int to)
{
    std::array<char, 65536> buffer;
    ssize_t length = 0;
    while ((length = read(from, buffer.data(), buffer.size())) != 0) {
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0 || !write_all(to, buffer.data(), length)) {
            return false;
        }
    }
    return true;
}

/* Copies `from` into the new file `to` and closes `to`. On failure prints an error and removes it.
 */
bool fill(int from, int to, const std::string &path)
{
    constexpr mode_t READABLE_FOR_ALL = 0644;
    /* The caller's umask must not make the file unreadable for the daemon's user. */
    bool is_whole = copy_content(from, to) && fchmod(to, READABLE_FOR_ALL) == 0 && fsync(to) == 0;
    int reason = errno;
    if (close(to) < 0 && is_whole) {
        is_whole = false;
        reason = errno;
    }
    if (!is_whole) {
        ctl_copy_remove(path);
        ctl_error("cannot write '%s': %s", path.c_str(), g_strerror(reason));
    }
    return is_whole;
}

/* Blocks the signals that end the program, and returns the previous signal mask. */
sigset_t block_signals()
{
    sigset_t ending;
    sigset_t before;
    sigemptyset(&ending);
    for (const int number : ENDING) {
        sigaddset(&ending, number);
    }
    sigprocmask(SIG_BLOCK, &ending, &before);
    return before;
}

void explain_create(const std::string &path)
{
    if (errno == EEXIST) {
        ctl_error("'%s' already exists and was not overwritten; rename your file, or replace that "
                  "one with --replace",
                  path.c_str());
        return;
    }
    ctl_error("cannot write '%s': %s", path.c_str(), g_strerror(errno));
    if (errno == EACCES) {
        ctl_error("only root and members of group '" SONOBRIK_CONFIG_GROUP "' may write there");
    }
}

/* Copies `source` to the new file `path`. If `path` ends with "XXXXXX", replaces that with letters
 * that make the name unique. Returns the path, or an empty string after printing an error. */
std::string copy(const char *source, std::string path)
{
    constexpr mode_t PRIVATE_UNTIL_COMPLETE = 0600;
    /* Without O_NONBLOCK, opening a FIFO waits until another process writes to it. */
    const int from = open(source, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat found = {};
    if (from < 0 || fstat(from, &found) < 0) {
        ctl_error("cannot read '%s': %s", source, g_strerror(errno));
        if (from >= 0) {
            close(from);
        }
        return "";
    }
    if (!S_ISREG(found.st_mode)) {
        ctl_error("'%s' is not a regular file", source);
        close(from);
        return "";
    }
    /* A signal must not leave a copy behind: the next attempt would fail because the file exists.
     * It must not remove a file that is not ours either, so it waits until the copy exists. */
    const sigset_t signals = block_signals();
    const int to =
        path.ends_with(UNIQUE)
            ? mkostemp(path.data(), O_CLOEXEC)
            : open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, PRIVATE_UNTIL_COMPLETE);
    if (to < 0) {
        explain_create(path);
    } else {
        guard(path);
    }
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    const bool is_copied = to >= 0 && fill(from, to, path);
    close(from);
    return is_copied ? path : "";
}

} // namespace

std::string ctl_copy_destination(const char *source)
{
    g_autofree char *name = g_path_get_basename(source);
    return std::string(CLIENT_CLIP_FOLDER) + "/" + name;
}

std::string ctl_copy_to_clips(const char *source)
{
    return copy(source, ctl_copy_destination(source));
}

std::string ctl_copy_beside_clips(const char *source)
{
    g_autofree char *name = g_path_get_basename(source);
    return copy(source, std::string(CLIENT_CLIP_FOLDER) + "/." + name + UNIQUE);
}

void ctl_copy_keep()
{
    is_doomed = 0;
}

bool ctl_copy_is_kept()
{
    return is_doomed == 0;
}

void ctl_copy_remove(const std::string &path)
{
    unlink(path.c_str());
    ctl_copy_keep();
}
