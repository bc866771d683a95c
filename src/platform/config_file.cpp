#include "config_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* A configuration file has a few lines. A larger file is a mistake and must not fill the memory. */
static constexpr size_t MAX_SIZE = size_t{1024} * 1024;

static gint64 in_nsec(const struct timespec &time)
{
    return static_cast<gint64>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

/* Opens a regular file for reading. Returns its descriptor, or -1 with errno set. The daemon has
 * the same in file_utils_open_regular(), which the platform must not use. */
static int open_regular(const char *path)
{
    /*
     * Without O_NONBLOCK, opening a FIFO would wait for a writer. The type is checked on the open
     * file, because another file may take the place of `path` between a check and the opening.
     */
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status;
    if (fd < 0) {
        return -1;
    }
    if (fstat(fd, &status) == 0) {
        if (S_ISREG(status.st_mode)) {
            return fd;
        }
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

static int read_all(int fd, std::string *content)
{
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            return 0;
        }
        content->append(buffer, static_cast<size_t>(count));
        if (content->size() > MAX_SIZE) {
            return EFBIG;
        }
    }
}

ConfigFileStamp config_file_stamp(const char *path)
{
    struct stat status;
    if (stat(path, &status) < 0) {
        return {.error = errno};
    }
    return {
        .device = status.st_dev,
        .inode = status.st_ino,
        .mode = status.st_mode,
        .size = status.st_size,
        .modified_nsec = in_nsec(status.st_mtim),
        .changed_nsec = in_nsec(status.st_ctim),
    };
}

int config_file_read(const char *path, std::string *content)
{
    const int fd = open_regular(path);
    if (fd < 0) {
        return errno;
    }
    const int error = read_all(fd, content);
    close(fd);
    return error;
}
