#include "platform/util.h"

#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

int util_str_to_int(const char *text, int32_t *value)
{
    if (!text || !value) {
        return 0;
    }
    const char *digits = text + (*text == '+' || *text == '-');
    if (*digits == '\0' || strspn(digits, "0123456789") != strlen(digits)) {
        return 0;
    }
    errno = 0;
    const long long number = strtoll(text, NULL, 10);
    if (errno != 0 || number < INT32_MIN || number > INT32_MAX) {
        return 0;
    }
    *value = (int32_t)number;
    return 1;
}

char *util_str_extract(const char *text, const char *prefix, const char *suffix)
{
    if (!text || !prefix || !suffix || strlen(text) < strlen(prefix) + strlen(suffix) ||
        !g_str_has_prefix(text, prefix) || !g_str_has_suffix(text, suffix)) {
        return NULL;
    }
    return g_strndup(text + strlen(prefix), strlen(text) - strlen(prefix) - strlen(suffix));
}

static bool write_all(int fd, const char *text, size_t length)
{
    while (length > 0) {
        const ssize_t count = write(fd, text, length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        text += count;
        length -= (size_t)count;
    }
    return true;
}

/* Creates and syncs the file `path`, which must not exist. Removes it on failure. */
static bool write_new(const char *path, const char *text, size_t length, mode_t mode)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    /* The umask may have removed bits. */
    const bool written = fchmod(fd, mode) == 0 && write_all(fd, text, length) && fsync(fd) == 0;
    if (close(fd) == 0 && written) {
        return true;
    }
    unlink(path);
    return false;
}

/*
 * Returns false if the folder's storage fails. A folder that may not be read, or whose file system
 * cannot sync folders (EINVAL), is not an error: the file itself is on storage.
 */
static bool sync_folder(const char *path)
{
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return true;
    }
    const bool synced = fsync(fd) == 0 || errno == EINVAL;
    close(fd);
    return synced;
}

int util_write_file_synced(const char *path, const char *text, size_t length, mode_t mode)
{
    if (!path || !text || g_str_has_suffix(path, "/")) {
        return 0;
    }
    g_autofree char *folder = g_path_get_dirname(path);
    g_autofree char *name = g_path_get_basename(path);
    g_autofree char *temporary = g_strdup_printf("%s/.%s.new", folder, name);
    unlink(temporary); /* a crash may have left it */
    if (!write_new(temporary, text, length, mode)) {
        return 0;
    }
    if (rename(temporary, path) < 0) {
        unlink(temporary);
        return 0;
    }
    return sync_folder(folder);
}
