#include "ctl_copy.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <glib.h>
#include <initializer_list>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl_clips.h"
#include "ctl_say.h"

namespace
{

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

/* Fills the new file `to`, closes it, and removes it again if that fails. */
bool fill(int from, int to, const char *path)
{
    constexpr mode_t FOR_EVERYBODY = 0644;
    /* The umask of the caller must not keep the daemon's user out. */
    bool is_whole = copy_content(from, to) && fchmod(to, FOR_EVERYBODY) == 0 && fsync(to) == 0;
    int reason = errno;
    if (close(to) < 0 && is_whole) {
        is_whole = false;
        reason = errno;
    }
    if (!is_whole) {
        unlink(path);
        ctl_error("cannot write '%s': %s", path, g_strerror(reason));
    }
    return is_whole;
}

/* Holds back what would end the program; what came meanwhile does so when it is given back. */
sigset_t hold_signals()
{
    sigset_t ending;
    sigset_t before;
    sigemptyset(&ending);
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&ending, number);
    }
    sigprocmask(SIG_BLOCK, &ending, &before);
    return before;
}

void explain_open(const std::string &path)
{
    if (errno == EEXIST) {
        ctl_error("there is a '%s' already, and it stays; add that one, or rename yours",
                  path.c_str());
        return;
    }
    ctl_error("cannot write '%s': %s", path.c_str(), g_strerror(errno));
    if (errno == EACCES) {
        ctl_error("root, and members of the group sonobrik-config, may write there");
    }
}

} // namespace

std::string ctl_copy_to_clips(const char *source)
{
    constexpr mode_t FOR_NOBODY_YET = 0600;
    g_autofree char *name = g_path_get_basename(source);
    const std::string path = std::string(CTL_CLIP_FOLDER) + "/" + name;
    /* A pipe that nobody writes to must not hold us. */
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
        ctl_error("'%s' is no regular file", source);
        close(from);
        return "";
    }
    /* Half a copy would be in the way of the next one. */
    const sigset_t signals = hold_signals();
    const int to = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, FOR_NOBODY_YET);
    if (to < 0) {
        explain_open(path);
    }
    const bool is_copied = to >= 0 && fill(from, to, path.c_str());
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    close(from);
    return is_copied ? path : "";
}
